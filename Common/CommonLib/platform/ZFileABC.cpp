#include "ZFileABC.h"

ZFileABC::~ZFileABC() = default;

void ZFileABC::SetNFSCredentials(int uid, const std::vector<int>& gids) {
    m_NFSUid = uid;
    m_NFSGids = gids;
}
