#include "qsSysInfo.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

// Asked during this file's static initialisation, which may run before or
// after the library's own: either way the answer must be complete.
static const std::string g_NameAtStart = qsSysInfo::GetComputerNameA();

TEST(qsSysInfo, HostFactsMatchTheSystem) {
    utsname u;
    ASSERT_EQ(uname(&u), 0);
    EXPECT_EQ(g_NameAtStart, u.nodename);
    EXPECT_STREQ(qsSysInfo::GetComputerNameA(), u.nodename);
    EXPECT_STREQ(qsSysInfo::GetDomainName(), u.domainname);
    EXPECT_STREQ(qsSysInfo::GetCurrentUser(), getenv("USER") ? getenv("USER") : "");
    EXPECT_EQ(qsSysInfo::PageSize(), DWORD(sysconf(_SC_PAGESIZE)));
    EXPECT_EQ(qsSysInfo::AllocationGranularity(), qsSysInfo::PageSize());
    EXPECT_EQ(qsSysInfo::NumberOfProcessors(), DWORD(sysconf(_SC_NPROCESSORS_ONLN)));
}
