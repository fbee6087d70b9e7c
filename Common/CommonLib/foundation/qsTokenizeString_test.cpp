#include "qsTokenizeString.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace {

using Tokens = std::vector<std::string>;

TEST(qsTokenizeString, SkipsDelimiterRunsAndAppends) {
    Tokens out{"kept"};
    qsTokenizeString(std::string(",a,,b,"), ",", out);
    qsTokenizeString(std::string(""), ",", out);
    qsTokenizeString(std::string(" ;x; y"), " ;", out);
    qsTokenizeString(std::string("no delimiter"), ",", out);
    EXPECT_EQ(out, (Tokens{"kept", "a", "b", "x", "y", "no delimiter"}));
}

TEST(qsTokenizeString, OnlyDelimitersThrowOutOfRange) {
    Tokens out;
    EXPECT_THROW(qsTokenizeString(std::string(",,,"), ",", out), std::out_of_range);
    EXPECT_THROW(qsTokenizeString(std::string(" "), " ,", out), std::out_of_range);
    EXPECT_TRUE(out.empty());
}

} // namespace
