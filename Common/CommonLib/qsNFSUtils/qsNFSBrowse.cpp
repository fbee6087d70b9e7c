// The browse implementation of the NFS client and its error translation.

#include "qsLog.h"
#include "qsNFSErrorMap.h"
#include "qsNFSStatus.h"

#include <cstdint>

namespace {

constexpr long Code(qsStatus s) {
    return qsStatusAsLong(s);
}

// The detail is text from outside (paths, names): its '%' must print as
// itself, not start a conversion, since the joined text is the format.
std::string LiteralForFormat(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        out += c;
        if (c == '%')
            out += '%';
    }
    return out;
}

} // namespace

// Shared codes are intended: both version mismatches are one condition for
// a caller, as are a missing and an unregistered program, and a server that
// could not decode the arguments and one that failed otherwise.
RPCErrorMap::RPCErrorMap()
    : ErrorMap(Code(QS_E_RPC_CLIENT), {
                                          {RPC_CANTENCODEARGS, Code(QS_E_RPC_CANTENCODEARGS)},
                                          {RPC_CANTDECODERES, Code(QS_E_RPC_CANTDECODERES)},
                                          {RPC_CANTSEND, Code(QS_E_RPC_CANTSEND)},
                                          {RPC_TIMEDOUT, Code(QS_E_RPC_TIMEDOUT)},
                                          {RPC_VERSMISMATCH, Code(QS_E_RPC_VERSMISMATCH)},
                                          {RPC_AUTHERROR, Code(QS_E_RPC_AUTH)},
                                          {RPC_PROGUNAVAIL, Code(QS_E_RPC_PROGUNAVAIL)},
                                          {RPC_PROGVERSMISMATCH, Code(QS_E_RPC_VERSMISMATCH)},
                                          {RPC_PROCUNAVAIL, Code(QS_E_RPC_PROCUNAVAIL)},
                                          {RPC_CANTDECODEARGS, Code(QS_E_RPC_SYSTEMERROR)},
                                          {RPC_SYSTEMERROR, Code(QS_E_RPC_SYSTEMERROR)},
                                          {RPC_UNKNOWNHOST, Code(QS_E_RPC_UNKNOWNHOST)},
                                          {RPC_PMAPFAILURE, Code(QS_E_RPC_PMAPFAILURE)},
                                          {RPC_PROGNOTREGISTERED, Code(QS_E_RPC_PROGUNAVAIL)},
                                          {RPC_UNKNOWNPROTO, Code(QS_E_RPC_UNKNOWNPROTO)},
                                      }) {}

// Not-a-directory and is-a-directory share a code: either way the object
// has the wrong type for the operation.
NFSErrorMap::NFSErrorMap()
    : ErrorMap(Code(QS_E_NFS_FAILED), {
                                          {NFS3ERR_PERM, Code(QS_E_NFS_PERM)},
                                          {NFS3ERR_NOENT, Code(QS_E_NFS_NOENT)},
                                          {NFS3ERR_ACCES, Code(QS_E_NFS_ACCES)},
                                          {NFS3ERR_EXIST, Code(QS_E_NFS_EXIST)},
                                          {NFS3ERR_NOTDIR, Code(QS_E_NFS_WRONG_TYPE)},
                                          {NFS3ERR_ISDIR, Code(QS_E_NFS_WRONG_TYPE)},
                                          {NFS3ERR_ROFS, Code(QS_E_NFS_ROFS)},
                                          {NFS3ERR_NAMETOOLONG, Code(QS_E_NFS_NAMETOOLONG)},
                                          {NFS3ERR_NOTEMPTY, Code(QS_E_NFS_NOTEMPTY)},
                                          {NFS3ERR_STALE, Code(QS_E_NFS_STALE)},
                                          {NFS3ERR_BADHANDLE, Code(QS_E_NFS_BADHANDLE)},
                                          {NFS3ERR_SERVERFAULT, Code(QS_E_NFS_SERVERFAULT)},
                                          {NFS3ERR_BADTYPE, Code(QS_E_NFS_BADTYPE)},
                                      }) {}

Mount3ErrorMap::Mount3ErrorMap()
    : ErrorMap(Code(QS_E_NFS_FAILED), {
                                          {MNT3ERR_PERM, Code(QS_E_NFS_PERM)},
                                          {MNT3ERR_NOENT, Code(QS_E_NFS_NOENT)},
                                          {MNT3ERR_ACCES, Code(QS_E_NFS_ACCES)},
                                          {MNT3ERR_NOTDIR, Code(QS_E_NFS_WRONG_TYPE)},
                                          {MNT3ERR_NAMETOOLONG, Code(QS_E_NFS_NAMETOOLONG)},
                                          {MNT3ERR_SERVERFAULT, Code(QS_E_NFS_SERVERFAULT)},
                                      }) {}

NLMErrorMap::NLMErrorMap()
    : ErrorMap(Code(QS_E_NLM_FAILED), {
                                          {nlm_denied, Code(QS_E_NLM_DENIED)},
                                          {nlm_denied_nolocks, Code(QS_E_NLM_NOLOCKS)},
                                          {nlm_blocked, Code(QS_E_NLM_BLOCKED)},
                                          {nlm_denied_grace_period, Code(QS_E_NLM_GRACE_PERIOD)},
                                      }) {}

DWORDErrorMap::DWORDErrorMap() : ErrorMap(0, {}) {}

RPCErrorMap g_RPCErrorMap;
NFSErrorMap g_NFSErrorMap;
Mount3ErrorMap g_Mount3ErrorMap;
NLMErrorMap g_NLMErrorMap;
DWORDErrorMap g_DWORDErrorMap;

// A transport failure wins over whatever protocol status came with it, and
// it is always looked up in the global transport map.  A system error whose
// call the C library saw succeed therefore translates to 0 (DWORDErrorMap):
// the caller decides what it returns then.
template <typename T, T Success>
long TranslateError(ErrorMap<T>& map, clnt_stat rpcStatus, T status, const std::string& format,
                    const std::string& detail) {
    long result = Code(QS_E_NFS_NO_FAILURE);
    std::string text = format;
    if (!detail.empty())
        text += " " + LiteralForFormat(detail);
    if (rpcStatus != RPC_SUCCESS)
        result = g_RPCErrorMap.TranslateError(rpcStatus);
    else if (status != Success)
        result = map.TranslateError(status);
    qsLogPrintfA(LONG(result), qsLogSevWarning, text.c_str(), uint32_t(status),
                 uint32_t(rpcStatus));
    return result;
}

template long TranslateError<unsigned long, 0ul>(ErrorMap<unsigned long>&, clnt_stat, unsigned long,
                                                 const std::string&, const std::string&);
template long TranslateError<nfsstat3, NFS3_OK>(ErrorMap<nfsstat3>&, clnt_stat, nfsstat3,
                                                const std::string&, const std::string&);
template long TranslateError<mountstat3, MNT3_OK>(ErrorMap<mountstat3>&, clnt_stat, mountstat3,
                                                  const std::string&, const std::string&);
template long TranslateError<nlm_stats, nlm_granted>(ErrorMap<nlm_stats>&, clnt_stat, nlm_stats,
                                                     const std::string&, const std::string&);
