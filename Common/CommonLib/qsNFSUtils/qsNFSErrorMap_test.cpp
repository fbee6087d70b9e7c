#include "qsNFSErrorMap.h"

#include "qsLog.h"
#include "qsLogRecords.h"
#include "qsNFSStatus.h"

#include <gtest/gtest.h>

namespace {

struct Row {
    int status;
    qsStatus code;
};

// Every row through TranslateError with a successful transport: the code,
// sign-extended as callers compare it.  Statuses a table lacks are rows of
// its default.
template <typename T, size_t N> void ExpectTable(ErrorMap<T>& map, const Row (&rows)[N]) {
    for (const Row& row : rows) {
        long result = TranslateError(map, RPC_SUCCESS, T(row.status), "status %d err 0x%8.8X", "");
        EXPECT_EQ(qsStatus(result), row.code) << "status " << row.status;
        EXPECT_LT(result, 0) << "status " << row.status;
    }
}

} // namespace

// A transport failure wins over the protocol status and always goes
// through the transport map, whichever map is passed: the system-error
// map, which answers 0 for everything, included.
TEST(ErrorMap, EveryTransportStatus) {
    struct {
        clnt_stat rpc;
        qsStatus code;
    } rows[] = {
        {RPC_CANTENCODEARGS, 0xE0030302}, {RPC_CANTDECODERES, 0xE0030303},
        {RPC_CANTSEND, 0xE0030304},       {RPC_TIMEDOUT, 0xE0030306},
        {RPC_VERSMISMATCH, 0xE0030307},   {RPC_AUTHERROR, 0xE0030301},
        {RPC_PROGUNAVAIL, 0xE0030308},    {RPC_PROGVERSMISMATCH, 0xE0030307},
        {RPC_PROCUNAVAIL, 0xE0030309},    {RPC_CANTDECODEARGS, 0xE003030D},
        {RPC_SYSTEMERROR, 0xE003030D},    {RPC_UNKNOWNHOST, 0xE003030A},
        {RPC_PMAPFAILURE, 0xE003030C},    {RPC_PROGNOTREGISTERED, 0xE0030308},
        {RPC_UNKNOWNPROTO, 0xE003030B},   {RPC_CANTRECV, 0xE0030300},
        {RPC_FAILED, 0xE0030300},         {RPC_CANTCONNECT, 0xE0030300},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rpc);
        EXPECT_EQ(qsStatus(TranslateError(g_NFSErrorMap, row.rpc, NFS3ERR_NOENT, "f", "")),
                  row.code);
        EXPECT_EQ(qsStatus(TranslateError(g_DWORDErrorMap, row.rpc, 5ul, "f", "")), row.code);
    }
}

TEST(ErrorMap, EveryProtocolStatusAndTheDefaults) {
    const Row nfs[] = {
        {NFS3ERR_PERM, 0xE0030205},      {NFS3ERR_NOENT, 0xE0030207},
        {NFS3ERR_ACCES, 0xE0030206},     {NFS3ERR_EXIST, 0xE0030210},
        {NFS3ERR_NOTDIR, 0xE003020A},    {NFS3ERR_ISDIR, 0xE003020A},
        {NFS3ERR_ROFS, 0xE003020E},      {NFS3ERR_NAMETOOLONG, 0xE0030208},
        {NFS3ERR_NOTEMPTY, 0xE0030209},  {NFS3ERR_STALE, 0xE003020B},
        {NFS3ERR_BADHANDLE, 0xE003020F}, {NFS3ERR_SERVERFAULT, 0xE003020D},
        {NFS3ERR_BADTYPE, 0xE003020C},   {NFS3ERR_IO, 0xE0030204},
        {NFS3ERR_NOSPC, 0xE0030204},     {NFS3ERR_JUKEBOX, 0xE0030204},
        {NFS3ERR_NOTSUPP, 0xE0030204},
    };
    const Row mount[] = {
        {MNT3ERR_PERM, 0xE0030205},        {MNT3ERR_NOENT, 0xE0030207},
        {MNT3ERR_ACCES, 0xE0030206},       {MNT3ERR_NOTDIR, 0xE003020A},
        {MNT3ERR_NAMETOOLONG, 0xE0030208}, {MNT3ERR_SERVERFAULT, 0xE003020D},
        {MNT3ERR_IO, 0xE0030204},          {MNT3ERR_INVAL, 0xE0030204},
        {MNT3ERR_NOTSUPP, 0xE0030204},
    };
    const Row nlm[] = {
        {nlm_denied, 0xE0030401},  {nlm_denied_nolocks, 0xE0030402},
        {nlm_blocked, 0xE0030403}, {nlm_denied_grace_period, 0xE0030404},
        {5, 0xE0030400},           {7, 0xE0030400},
    };
    ExpectTable(g_NFSErrorMap, nfs);
    ExpectTable(g_Mount3ErrorMap, mount);
    ExpectTable(g_NLMErrorMap, nlm);

    // A system error the transport did not see is deliberately no code.
    for (unsigned long error : {1ul, 111ul, 0xFFFFFFFFul})
        EXPECT_EQ(TranslateError(g_DWORDErrorMap, RPC_SUCCESS, error, "f", ""), 0);
}

// The line as the callers' formats produce it: the detail after one space,
// the protocol status in decimal, the transport status as eight upper-case
// hexadecimal digits; the code as the message code, at severity 2.  Asked
// without a failure, the translation still answers with a code of its own,
// and still logs.
TEST(ErrorMap, LogLineNamesTheOperationAndBothStatuses) {
    struct {
        long result;
        const char* line;
        qsStatus code;
    } cases[] = {
        {TranslateError(g_NFSErrorMap, RPC_TIMEDOUT, NFS3_OK,
                        "nfsproc3_read_3 (status %d, err 0x%8.8X)", "/export/data.bin"),
         "nfsproc3_read_3 (status 0, err 0x00000005) /export/data.bin", 0xE0030306},
        {TranslateError(g_NFSErrorMap, RPC_SUCCESS, NFS3ERR_NOENT,
                        "nfsproc3_lookup_3 (status %d, err 0x%8.8X)", ""),
         "nfsproc3_lookup_3 (status 2, err 0x00000000)", 0xE0030207},
        {TranslateError(g_NLMErrorMap, RPC_SUCCESS, nlm_denied,
                        "nlm_lock_3(status %d, err 0x%8.8X)", "/export/a:a"),
         "nlm_lock_3(status 1, err 0x00000000) /export/a:a", 0xE0030401},
        {TranslateError(g_DWORDErrorMap, RPC_PROGNOTREGISTERED, 111ul,
                        "CreateNFSBrowse failed (system err 0x%8.8x, RPC status %d)", "10.1.2.3"),
         "CreateNFSBrowse failed (system err 0x0000006f, RPC status 15) 10.1.2.3", 0xE0030308},
        // Text from outside is printed as it stands, '%' included.
        {TranslateError(g_Mount3ErrorMap, RPC_SUCCESS, MNT3ERR_ACCES,
                        "mountproc3_mnt_3 (status %d, err 0x%8.8X)", "/srv/100%s%d"),
         "mountproc3_mnt_3 (status 13, err 0x00000000) /srv/100%s%d", 0xE0030206},
        {TranslateError(g_NFSErrorMap, RPC_SUCCESS, NFS3_OK, "a %d %X", "x"), "a 0 0 x",
         0xE0030211},
        {TranslateError(g_DWORDErrorMap, RPC_SUCCESS, 0ul, "d %d %X", ""), "d 0 0", 0xE0030211},
    };
    auto records = qsTest::ReadRecords(*g_pZLogStreamDefault);
    ASSERT_GE(records.size(), std::size(cases));
    size_t first = records.size() - std::size(cases);
    for (size_t i = 0; i < std::size(cases); ++i) {
        const qsTest::LogRecord& r = records[first + i];
        EXPECT_EQ(r.Text(), cases[i].line);
        EXPECT_EQ(qsStatus(r.Code()), cases[i].code);
        EXPECT_EQ(r.Severity(), qsLogSevWarning);
        EXPECT_EQ(qsStatus(cases[i].result), cases[i].code);
    }
}
