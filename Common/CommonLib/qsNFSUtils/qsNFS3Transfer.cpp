// Placeholder until the data transfer lands: every transfer fails as not
// supported, so that the browse object builds against the interface.
#include "qsNFS3Transfer.h"

#include "qsNFSStatus.h"

namespace qsNFSUtils {

struct NFS3Transfer::State {};

NFS3Transfer::NFS3Transfer(RPCClient&, RPCAuth&, unsigned long) : m_State(new State) {}
NFS3Transfer::~NFS3Transfer() = default;

int32_t NFS3Transfer::Read(const DirEntry&, const ExportInfo::Facts&, void*, int64_t,
                           uint32_t& count) {
    count = 0;
    return int32_t(QS_E_NFS_FAILED);
}

int32_t NFS3Transfer::Write(const DirEntry&, const ExportInfo::Facts&, const void*, int64_t,
                            uint32_t& count) {
    count = 0;
    return int32_t(QS_E_NFS_FAILED);
}

bool NFS3Transfer::Verify() { return true; }

} // namespace qsNFSUtils
