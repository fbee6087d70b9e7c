// Translation of the NFS client's failures into status codes, internal to
// the library and its tests: it includes the generated protocol headers,
// whose macros (NLM_LOCK, MOUNTPROC_MNT, ...) must not reach callers.
//
// A remote operation ends with two statuses: the transport's (clnt_stat)
// and, when the call got through, the procedure's.  TranslateError folds
// them into one code of qsNFSStatus.h and logs one line naming the failed
// operation and both raw statuses.
#pragma once

#include "qsMountProt.h"
#include "qsNFS3Prot.h"
#include "qsNLMProt.h"

#include <initializer_list>
#include <map>
#include <string>
#include <utility>

// A table from status to code, with a default for statuses it lacks.
// Codes are sign-extended longs (qsStatusAsLong).
template <typename T> class ErrorMap {
public:
    ErrorMap(long defaultCode, std::initializer_list<std::pair<const T, long>> table)
        : m_DefaultCode(defaultCode), m_Table(table) {}
    virtual ~ErrorMap() = default;

    virtual long TranslateError(T status) {
        auto found = m_Table.find(status);
        return found == m_Table.end() ? m_DefaultCode : found->second;
    }

protected:
    long m_DefaultCode;
    std::map<T, long> m_Table;
};

// Transport statuses.  Always the one consulted for a transport failure,
// whichever map the caller passes.
class RPCErrorMap : public ErrorMap<clnt_stat> {
public:
    RPCErrorMap();
};

class NFSErrorMap : public ErrorMap<nfsstat3> {
public:
    NFSErrorMap();
};

// MOUNT version 3; the codes are those of NFS for the same conditions.
class Mount3ErrorMap : public ErrorMap<mountstat3> {
public:
    Mount3ErrorMap();
};

class NLMErrorMap : public ErrorMap<nlm_stats> {
public:
    NLMErrorMap();
};

// Plain system error numbers are deliberately given no code of their own:
// every value translates to 0.
class DWORDErrorMap : public ErrorMap<unsigned long> {
public:
    DWORDErrorMap();
    long TranslateError(unsigned long) override { return 0; }
};

// Filled before main, read-only afterwards: any thread may translate.
extern RPCErrorMap g_RPCErrorMap;
extern NFSErrorMap g_NFSErrorMap;
extern Mount3ErrorMap g_Mount3ErrorMap;
extern NLMErrorMap g_NLMErrorMap;
extern DWORDErrorMap g_DWORDErrorMap;

// The code of a failed remote operation: the transport status's code in
// g_RPCErrorMap when the transport failed, else `map`'s translation of the
// protocol status when that is not `Success`, else 0xE0030211 (asked without
// a failure).  Logs the result as the message code, at severity 2, with the
// text `format`, then one space and `detail` when detail is not empty; the
// format's two conversions receive the protocol status and then the
// transport status, each as a 32-bit value, for example
// "nfsproc3_lookup_3 (status %d, err 0x%8.8X)".  Defined for unsigned long,
// nfsstat3, mountstat3 and nlm_stats.
template <typename T, T Success = T(0)>
long TranslateError(ErrorMap<T>& map, clnt_stat rpcStatus, T status, const std::string& format,
                    const std::string& detail);
