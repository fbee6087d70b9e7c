// Logs one message naming itself (the first argument) and the version of the
// headers it was built with, for the test to find with qslog.  It also makes a
// GUID and an RPC credential, which reach into libcrypt and libtirpc: a static
// link that lacks either library fails.
#include <qs/qsLog.h>
#include <qs/qsRPCWrappers.h>
#include <qs/qsVersion.h>
#include <qs/qsWinApi.h>

#include <cstdio>

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "consumer";
    GUID guid;
    CoCreateGuid(&guid);
    qsNFSUtils::RPCAuth* auth = nullptr;
    if (qsNFSUtils::CreateRPCAuth(auth) != 0) {
        fprintf(stderr, "%s: no RPC credential\n", name);
        return 1;
    }
    delete auth;
    qsStatus s = qsLogPrintfA(0, qsLogSevNormal, "%hs: built on qs %hs", name, QS_VERSION);
    if (qsFailed(s)) {
        fprintf(stderr, "%s: qsLogPrintfA failed: 0x%08X\n", name, s);
        return 1;
    }
    return 0;
}
