// READ results decoded straight into the caller's memory (internal to the
// library and its tests: it includes the generated protocol header).
//
// The generated xdr_READ3res either allocates the data itself or, given a
// preset pointer, trusts it to be large enough for whatever length the
// reply claims.  A transfer that reads into its caller's buffer needs the
// bound that this routine adds.
#pragma once

#include "qsNFS3Prot.h"

namespace qsNFSUtils {

// An XDR routine for READ3res, usable wherever an xdrproc_t goes (stubs
// through clnt_call, RPCClient::RecvReply).  Before decoding, point
// res->READ3res_u.resok.data.data_val at the destination and set data_len to
// its capacity.  Decoding fails when the reply carries more bytes than that
// (nothing is written past the capacity); on success data_len holds the
// number of bytes received.  Encoding is xdr_READ3res's; freeing releases
// nothing, since the data belongs to the caller and the attributes hold no
// memory.
bool_t XdrReadResultInto(XDR* xdrs, READ3res* res);

} // namespace qsNFSUtils
