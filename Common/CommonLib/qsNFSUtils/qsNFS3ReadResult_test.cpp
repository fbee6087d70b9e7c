#include "qsNFS3ReadResult.h"

#include "qsRPCWrappers.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

std::string Data(unsigned length) {
    std::string data(length, '\0');
    for (unsigned i = 0; i < length; ++i)
        data[i] = char('a' + i % 26);
    return data;
}

// A READ reply body as a server sends it, `length` bytes of data.
std::vector<char> Encoded(nfsstat3 status, unsigned length) {
    std::string data = Data(length);
    READ3res res{};
    res.status = status;
    READ3resok& ok = res.READ3res_u.resok; // resfail shares its leading attributes
    ok.file_attributes.attributes_follow = TRUE;
    ok.file_attributes.post_op_attr_u.attributes.size = 5000000000ull;
    ok.count = length;
    ok.eof = TRUE;
    ok.data = {length, data.data()};
    std::vector<char> wire(length + 512);
    XDR xdrs;
    xdrmem_create(&xdrs, wire.data(), u_int(wire.size()), XDR_ENCODE);
    EXPECT_TRUE(qsNFSUtils::XdrReadResultInto(&xdrs, &res));
    wire.resize(xdr_getpos(&xdrs));
    return wire;
}

} // namespace

// The data lands in the caller's buffer, never past its capacity whatever
// the reply claims; a failure status leaves the buffer alone.
TEST(XdrReadResultInto, DecodesIntoTheCallersBufferWithinItsCapacity) {
    struct {
        nfsstat3 status;
        unsigned length;
        unsigned capacity;
        bool decodes;
    } cases[] = {
        {NFS3_OK, 8192, 8192, true}, {NFS3_OK, 5, 8, true},        {NFS3_OK, 0, 0, true},
        {NFS3_OK, 9, 8, false},      {NFS3_OK, 8193, 8192, false}, {NFS3ERR_IO, 100, 8, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.status << " " << c.length << "/" << c.capacity);
        std::vector<char> wire = Encoded(c.status, c.length);
        std::string memory(c.capacity + 64, '#');
        READ3res res{};
        res.READ3res_u.resok.data = {c.capacity, memory.data()};
        XDR xdrs;
        xdrmem_create(&xdrs, wire.data(), u_int(wire.size()), XDR_DECODE);
        ASSERT_EQ(bool(qsNFSUtils::XdrReadResultInto(&xdrs, &res)), c.decodes);
        const READ3resok& ok = res.READ3res_u.resok;
        if (c.status != NFS3_OK || !c.decodes) {
            EXPECT_EQ(memory, std::string(c.capacity + 64, '#'));
            continue;
        }
        EXPECT_EQ(res.status, c.status);
        EXPECT_EQ(ok.file_attributes.post_op_attr_u.attributes.size, 5000000000ull);
        EXPECT_EQ(xdr_getpos(&xdrs), wire.size()); // padding consumed too
        EXPECT_TRUE(ok.eof);
        EXPECT_EQ(ok.count, c.length);
        EXPECT_EQ(ok.data.data_len, c.length);
        EXPECT_EQ(memory, Data(c.length) + std::string(c.capacity - c.length + 64, '#'));
        // Freeing must leave the caller's memory alone.
        xdr_free(qsNFSUtils::XdrProc(qsNFSUtils::XdrReadResultInto), reinterpret_cast<char*>(&res));
        EXPECT_EQ(ok.data.data_val, memory.data());
    }
}
