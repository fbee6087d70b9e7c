#include "qsNFS3ReadResult.h"

bool_t qsNFSUtils::XdrReadResultInto(XDR* xdrs, READ3res* res) {
    if (xdrs->x_op == XDR_ENCODE)
        return xdr_READ3res(xdrs, res);
    if (xdrs->x_op != XDR_DECODE)
        return TRUE;
    if (!xdr_nfsstat3(xdrs, &res->status))
        return FALSE;
    // The failure arm shares its leading attributes with the success arm and
    // leaves the caller's buffer fields alone.
    if (res->status != NFS3_OK)
        return xdr_READ3resfail(xdrs, &res->READ3res_u.resfail);

    READ3resok& ok = res->READ3res_u.resok;
    u_int length = 0;
    if (!xdr_post_op_attr(xdrs, &ok.file_attributes) || !xdr_count3(xdrs, &ok.count) ||
        !xdr_bool(xdrs, &ok.eof) || !xdr_u_int(xdrs, &length))
        return FALSE;
    if (length > ok.data.data_len || (length && !ok.data.data_val))
        return FALSE;
    if (!xdr_opaque(xdrs, ok.data.data_val, length))
        return FALSE;
    ok.data.data_len = length;
    return TRUE;
}
