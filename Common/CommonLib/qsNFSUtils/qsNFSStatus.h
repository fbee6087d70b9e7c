// Status codes of the NFS client.
//
// 0xE00302xx are file-system conditions (NFS and MOUNT statuses), 0xE00303xx
// transport conditions (ONC RPC), 0xE00304xx lock conditions (NLM).
//
// The NFS client's interfaces return these as a C long, sign-extended from
// the 32-bit code: a failure is then negative on every platform, as the
// callers written against a 32-bit long expect, and qsStatus(result) gives
// the code back for qsFailed().
#pragma once

#include "qsStatus.h"

enum : qsStatus {
    QS_E_NFS_FAILED = 0xE0030204,           // any other NFS or MOUNT status
    QS_E_NFS_PERM = 0xE0030205,
    QS_E_NFS_ACCES = 0xE0030206,
    QS_E_NFS_NOENT = 0xE0030207,
    QS_E_NFS_NAMETOOLONG = 0xE0030208,
    QS_E_NFS_NOTEMPTY = 0xE0030209,
    QS_E_NFS_WRONG_TYPE = 0xE003020A,       // not a directory, or is one
    QS_E_NFS_STALE = 0xE003020B,
    QS_E_NFS_BADTYPE = 0xE003020C,
    QS_E_NFS_SERVERFAULT = 0xE003020D,
    QS_E_NFS_ROFS = 0xE003020E,
    QS_E_NFS_BADHANDLE = 0xE003020F,
    QS_E_NFS_EXIST = 0xE0030210,
    QS_E_NFS_NO_FAILURE = 0xE0030211,       // translation asked for without a failure

    QS_E_RPC_CLIENT = 0xE0030300,           // client not created; any other transport status
    QS_E_RPC_AUTH = 0xE0030301,             // credential not created; authentication error
    QS_E_RPC_CANTENCODEARGS = 0xE0030302,
    QS_E_RPC_CANTDECODERES = 0xE0030303,
    QS_E_RPC_CANTSEND = 0xE0030304,
    QS_E_RPC_TIMEDOUT = 0xE0030306,
    QS_E_RPC_VERSMISMATCH = 0xE0030307,     // of RPC or of the program
    QS_E_RPC_PROGUNAVAIL = 0xE0030308,      // also: not registered
    QS_E_RPC_PROCUNAVAIL = 0xE0030309,
    QS_E_RPC_UNKNOWNHOST = 0xE003030A,
    QS_E_RPC_UNKNOWNPROTO = 0xE003030B,
    QS_E_RPC_PMAPFAILURE = 0xE003030C,
    QS_E_RPC_SYSTEMERROR = 0xE003030D,      // also: the server could not decode the arguments

    QS_E_NLM_FAILED = 0xE0030400,           // any other NLM status
    QS_E_NLM_DENIED = 0xE0030401,
    QS_E_NLM_NOLOCKS = 0xE0030402,
    QS_E_NLM_BLOCKED = 0xE0030403,
    QS_E_NLM_GRACE_PERIOD = 0xE0030404,

    QS_E_HOST_UNRESOLVED = 0xE0FF012A,      // no IPv4 address for a host name
};

// The code as the NFS client's interfaces return it.
constexpr long qsStatusAsLong(qsStatus s) { return long(int32_t(s)); }
