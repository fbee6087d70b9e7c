// Host resolution, against the names the NFS test server's hosts file adds
// (qsNFSTest.hosts); its name service is the hosts file alone.

#include "qsLog.h"
#include "qsLogRecords.h"
#include "qsNFSStatus.h"
#include "qsNetUtils.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

unsigned long Address(const char* dotted) {
    return inet_addr(dotted);
}

} // namespace

TEST(GetHostIPAddresses, NamesGoToTheResolverUnlessTheyAreDottedQuads) {
    struct {
        const char* host;
        std::vector<unsigned long> addresses;
    } cases[] = {
        // leading backslashes and slashes skipped; no resolver needed
        {"10.1.2.3", {Address("10.1.2.3")}},
        {"\\/\\10.1.2.3", {Address("10.1.2.3")}},
        // INADDR_NONE stays first, and the resolver is asked as well
        {"255.255.255.255", {INADDR_NONE, INADDR_NONE}},
        {"localhost", {Address("127.0.0.1")}},
        // every address, in the resolver's order; GetHostIPAddress: the first
        {"multi.qs.test", {Address("192.0.2.1"), Address("192.0.2.2"), Address("192.0.2.3")}},
        // digit-led with two or four dots: the resolver alone
        {"9lives.qs.test", {Address("192.0.2.11")}},
        {"9.lives.qs.test.lan", {Address("192.0.2.13")}},
        // digit-led with three dots but no address: INADDR_NONE stays first
        {"9lives.qs.test.lan", {INADDR_NONE, Address("192.0.2.12")}},
    };
    for (const auto& c : cases) {
        std::vector<unsigned long> found;
        EXPECT_EQ(qsNetUtils::GetHostIPAddresses(c.host, found, false), 0) << c.host;
        EXPECT_EQ(found, c.addresses) << c.host;
        unsigned long first = 0;
        EXPECT_EQ(qsNetUtils::GetHostIPAddress(c.host, first, false), 0) << c.host;
        EXPECT_EQ(first, c.addresses.front()) << c.host;
    }

    // Appended to what the list holds.
    std::vector<unsigned long> list{Address("192.0.2.1")};
    EXPECT_EQ(qsNetUtils::GetHostIPAddresses("10.1.2.3", list, false), 0);
    EXPECT_EQ(list, (std::vector<unsigned long>{Address("192.0.2.1"), Address("10.1.2.3")}));
}

// Logged once, with the name as given after its leading slashes and the
// resolver's error (1: host not found).
TEST(GetHostIPAddresses, UnknownNamesAreLoggedAndBadInputRefused) {
    std::vector<unsigned long> found;
    long result = qsNetUtils::GetHostIPAddresses("\\\\no-such-host.qs.test", found, false);
    EXPECT_EQ(qsStatus(result), QS_E_HOST_UNRESOLVED);
    EXPECT_LT(result, 0);
    EXPECT_TRUE(found.empty());
    qsTest::LogRecord r = qsTest::ReadRecords(*g_pZLogStreamDefault).back();
    EXPECT_EQ(
        r.Text(),
        "qsNetUtils::GetHostIPAddress: error 1 getting IP address for 'no-such-host.qs.test'");
    EXPECT_EQ(qsStatus(r.Code()), QS_E_HOST_UNRESOLVED);
    EXPECT_EQ(r.Severity(), qsLogSevSysCall);

    unsigned long untouched = 7;
    EXPECT_EQ(qsStatus(qsNetUtils::GetHostIPAddress("no-such-host.qs.test", untouched, false)),
              QS_E_HOST_UNRESOLVED);
    for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(qsStatus(qsNetUtils::GetHostIPAddresses(bad, found, false)), QS_E_INVALIDARG);
        EXPECT_EQ(qsStatus(qsNetUtils::GetHostIPAddress(bad, untouched, false)), QS_E_INVALIDARG);
    }
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(untouched, 7u);
}
