#include "qsTokenizeString.h"

#include <gtest/gtest.h>
#include <stdexcept>

TEST(qsTokenizeString, SkipsDelimiterRunsAppendsAndThrowsOnOnlyDelimiters) {
    std::vector<std::string> out{"kept"};
    for (const char* text : {",a,,b,", "", ",x, y", "no delimiter"})
        qsTokenizeString(std::string(text), ", ", out);
    EXPECT_EQ(out, (std::vector<std::string>{"kept", "a", "b", "x", "y", "no", "delimiter"}));
    out.clear();
    EXPECT_THROW(qsTokenizeString(std::string(",,,"), ",", out), std::out_of_range);
    EXPECT_THROW(qsTokenizeString(std::string(" "), " ,", out), std::out_of_range);
    EXPECT_TRUE(out.empty());
}
