// Host addresses for the NFS client.
#pragma once

#include <vector>

namespace qsNetUtils {

// Appends the IPv4 addresses of `host` (network byte order) to `addresses`
// and returns 0.  Leading backslashes and slashes are skipped, so UNC-style
// ("\\host") and URL-style ("//host") names may be passed.  A text that
// starts with a digit and has exactly three dots is converted without asking
// the resolver; a conversion that gives INADDR_NONE (255.255.255.255, or not
// an address at all) stays in the list as its first entry and the resolver
// is asked as well.  Every other name goes to the resolver, whose addresses
// are appended in its order.  0x80000003 for a null or empty host;
// 0xE0FF012A, logged, when the resolver has no IPv4 address for it.
// `unused` is accepted for source compatibility and ignored.
long GetHostIPAddresses(const char* host, std::vector<unsigned long>& addresses, bool unused);

// The first address GetHostIPAddresses finds, with its result.
long GetHostIPAddress(const char* host, unsigned long& address, bool unused);

// Stands where Windows code starts and stops its socket layer, which needs
// no start here: Startup only records that it was called.
class WinsockInitHelper {
public:
    WinsockInitHelper(unsigned short version, bool startup);
    ~WinsockInitHelper() {}

    int Startup(unsigned short version);
    int Cleanup() { return 0; }
    bool Started() const { return m_Started; }

private:
    bool m_Started;
};

} // namespace qsNetUtils
