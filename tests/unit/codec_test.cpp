// The wire format: integer encodings, the request bytes, and XIDs flattened and read back.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "protocol/protocol.h"  // request codes

namespace {

using Bytes = std::vector<unsigned char>;

XID makeXid(long format, const std::string &gtrid, const std::string &bqual) {
    XID xid{};
    xid.formatID = format;
    xid.gtrid_length = static_cast<long>(gtrid.size());
    xid.bqual_length = static_cast<long>(bqual.size());
    std::memcpy(xid.data, (gtrid + bqual).data(), gtrid.size() + bqual.size());
    return xid;
}

TEST(Codec, IntegersAreBigEndianAndLongKeepsItsSignedLowerWord) {
    unsigned char b[8];
    setLong_jms(b, 0x0102030405060708L);
    EXPECT_EQ(Bytes(b, b + 8), (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    setInt_jms(b, -1);
    EXPECT_EQ(Bytes(b, b + 4), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(getInt_jms(b), -1);

    struct Case {
        Bytes bytes;
        long value;
    } cases[] = {
        {{0, 0, 0, 0, 0x80, 0, 0, 0}, -2147483648L},  // bit 31 set: true value minus 2^32
        {{0, 0, 0, 1, 0, 0, 0, 0}, 1L << 32},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, -4294967297L},  // -1 minus 2^32
        {{0, 0, 0, 0, 0, 0, 0x12, 0x34}, 0x1234},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(getLong_jms(c.bytes.data()), c.value);
    }
}

TEST(Codec, PrepareRequestIsTheHeaderFollowedByTheFlattenedXid) {
    const XID xid = makeXid(0x1234, "abc", "de");
    unsigned char flat[160];
    const int size = flattenXIDtoJavaTypes_jms(flat, &xid);
    unsigned char request[200] = {};
    buildHeader_jms(request, 20 + size, xajms::protocol::kPrepare, 1, 0);
    std::memcpy(request + 20, flat, static_cast<size_t>(size));

    const Bytes expected{0, 0, 0, 49, 0, 0, 0x20, 0x02, 0, 0,    0,    1,   0,   0,   0,  0, 0,
                         0, 0, 0, 0,  0, 0, 0,    0,    0, 0x12, 0x34, 0,   0,   0,   0,  0, 0,
                         0, 3, 0, 0,  0, 0, 0,    0,    0, 2,    'a',  'b', 'c', 'd', 'e'};
    EXPECT_EQ(size, 29);
    EXPECT_EQ(Bytes(request, request + 49), expected);
    EXPECT_EQ(request[49], 0);
}

TEST(Codec, FlatteningKeepsWithinTheDataAreaWhateverTheLengthsSay) {
    struct Case {
        long gtrid;
        long bqual;
        int size;
    } cases[] = {
        {64, 64, 152}, {200, 3, 152}, {-5, 2, 24}, {-5, 10, 29}, {0x7fffffffffffffffL, 9, 152}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.gtrid);
        XID xid{};
        xid.gtrid_length = c.gtrid;
        xid.bqual_length = c.bqual;
        auto *out = static_cast<unsigned char *>(std::malloc(160));  // exact size for ASan
        EXPECT_EQ(flattenXIDtoJavaTypes_jms(out, &xid), c.size);
        std::free(out);
    }
}

TEST(Codec, ExtractReadsBackWhatWasFlattened) {
    const XID in[2] = {makeXid(4711, "gtrid01", "bqual01"), makeXid(0, "", "")};
    Bytes wire;
    for (const XID &xid : in) {
        unsigned char flat[160];
        const int size = flattenXIDtoJavaTypes_jms(flat, &xid);
        wire.insert(wire.end(), flat, flat + size);
    }
    XID *out = extractXIDs_jms(wire.data(), 2);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(std::memcmp(out, in, sizeof in), 0);
    std::free(out);
    EXPECT_EQ(extractXIDs_jms(wire.data(), 0), nullptr);
}

}  // namespace
