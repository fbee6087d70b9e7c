#include "qsRPCWrappers.h"

#include "qsNFSStatus.h"
#include "qsNetUtils.h"
#include "qsSysInfo.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <memory>

using qsNFSUtils::RPCAuth;

namespace {

// The AUTH_UNIX body a credential sends.
struct UnixCredential {
    std::string machine;
    unsigned uid = 0;
    unsigned gid = 0;
    std::vector<unsigned> gids;
};

UnixCredential Decode(const opaque_auth& cred) {
    authunix_parms parms{};
    XDR xdrs;
    xdrmem_create(&xdrs, cred.oa_base, cred.oa_length, XDR_DECODE);
    EXPECT_TRUE(xdr_authunix_parms(&xdrs, &parms));
    UnixCredential out{parms.aup_machname, parms.aup_uid, parms.aup_gid,
                       std::vector<unsigned>(parms.aup_gids, parms.aup_gids + parms.aup_len)};
    xdr_free(qsNFSUtils::XdrProc(xdr_authunix_parms), reinterpret_cast<char*>(&parms));
    return out;
}

unsigned long Address(const char* dotted) {
    return inet_addr(dotted);
}

} // namespace

// The first group is both the primary group and the first supplementary
// one; the machine name is this computer's.
TEST(CreateRPCAuth, UnixCredentialCarriesTheWholeGroupList) {
    RPCAuth* raw = nullptr;
    ASSERT_EQ(qsNFSUtils::CreateRPCAuth(raw, 1234, {5678, 42, 7}), 0);
    std::unique_ptr<RPCAuth> auth(raw);
    ASSERT_NE(auth->Handle(), nullptr);
    ASSERT_EQ(auth->Handle()->ah_cred.oa_flavor, AUTH_UNIX);
    UnixCredential cred = Decode(auth->Handle()->ah_cred);
    EXPECT_EQ(cred.machine, qsSysInfo::GetComputerNameA());
    EXPECT_EQ(cred.uid, 1234u);
    EXPECT_EQ(cred.gid, 5678u);
    EXPECT_EQ(cred.gids, (std::vector<unsigned>{5678, 42, 7}));

    ASSERT_EQ(qsNFSUtils::CreateRPCAuth(raw), 0);
    auth.reset(raw);
    EXPECT_EQ(auth->Handle()->ah_cred.oa_flavor, AUTH_NONE);
}

// A refused credential leaves the out pointer as it was.
TEST(CreateRPCAuth, RefusedCredentialsLeaveNothing) {
    std::vector<int> tooMany(17, 100); // the protocol carries at most 16 groups
    for (const std::vector<int>& gids : {std::vector<int>{}, tooMany}) {
        RPCAuth* untouched = reinterpret_cast<RPCAuth*>(0x1);
        long result = qsNFSUtils::CreateRPCAuth(untouched, 1234, gids);
        EXPECT_EQ(qsStatus(result), QS_E_RPC_AUTH) << gids.size();
        EXPECT_LT(result, 0);
        EXPECT_EQ(untouched, reinterpret_cast<RPCAuth*>(0x1));
    }
}

// Texts that name an address need no name service.  (Names that do are
// resolved in tests/nfs, against the NFS test server's own hosts file.)
TEST(GetHostIPAddresses, AddressTextsAndBadInput) {
    struct {
        const char* host;
        std::vector<unsigned long> addresses;
    } cases[] = {
        {"10.1.2.3", {Address("10.1.2.3")}},
        {"\\\\10.1.2.3", {Address("10.1.2.3")}},
        {"//10.1.2.3", {Address("10.1.2.3")}},
        {"\\/\\127.0.0.1", {Address("127.0.0.1")}},
        // INADDR_NONE stays first, and the resolver is asked as well.
        {"255.255.255.255", {INADDR_NONE, INADDR_NONE}},
    };
    for (const auto& c : cases) {
        std::vector<unsigned long> found;
        EXPECT_EQ(qsNetUtils::GetHostIPAddresses(c.host, found, false), 0) << c.host;
        EXPECT_EQ(found, c.addresses) << c.host;
        unsigned long first = 0;
        EXPECT_EQ(qsNetUtils::GetHostIPAddress(c.host, first, true), 0) << c.host;
        EXPECT_EQ(first, c.addresses.front()) << c.host;
    }

    std::vector<unsigned long> list{Address("192.0.2.1")};
    EXPECT_EQ(qsNetUtils::GetHostIPAddresses("10.1.2.3", list, false), 0);
    EXPECT_EQ(list, (std::vector<unsigned long>{Address("192.0.2.1"), Address("10.1.2.3")}));

    unsigned long untouched = 7;
    for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_EQ(qsStatus(qsNetUtils::GetHostIPAddresses(bad, list, false)), QS_E_INVALIDARG);
        EXPECT_EQ(qsStatus(qsNetUtils::GetHostIPAddress(bad, untouched, false)), QS_E_INVALIDARG);
    }
    EXPECT_EQ(list.size(), 2u);
    EXPECT_EQ(untouched, 7u);
}
