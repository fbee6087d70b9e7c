#include "qsRPCWrappers.h"

#include "qsNFSStatus.h"
#include "qsSysInfo.h"

#include <gtest/gtest.h>
#include <memory>

using qsNFSUtils::RPCAuth;

// The first group is both the primary group and the first supplementary
// one; the machine name is this computer's.
TEST(CreateRPCAuth, UnixCredentialCarriesTheWholeGroupList) {
    RPCAuth* raw = nullptr;
    ASSERT_EQ(qsNFSUtils::CreateRPCAuth(raw, 1234, {5678, 42, 7}), 0);
    std::unique_ptr<RPCAuth> auth(raw);
    const opaque_auth& cred = auth->Handle()->ah_cred;
    ASSERT_EQ(cred.oa_flavor, AUTH_UNIX);
    authunix_parms parms{};
    XDR xdrs;
    xdrmem_create(&xdrs, cred.oa_base, cred.oa_length, XDR_DECODE);
    ASSERT_TRUE(xdr_authunix_parms(&xdrs, &parms));
    EXPECT_EQ(std::string(parms.aup_machname), qsSysInfo::GetComputerNameA());
    EXPECT_EQ(parms.aup_uid, 1234u);
    EXPECT_EQ(parms.aup_gid, 5678u);
    EXPECT_EQ(std::vector<unsigned>(parms.aup_gids, parms.aup_gids + parms.aup_len),
              (std::vector<unsigned>{5678, 42, 7}));
    xdr_free(qsNFSUtils::XdrProc(xdr_authunix_parms), reinterpret_cast<char*>(&parms));

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
