// The decoders on arbitrary bytes: getInt_jms and getLong_jms on the first bytes, then the
// count and records that recordsFit accepted into extractXIDs_jms, as the reply reader hands
// them over. Each XID extracted flattens back to its record but for its formatID.
#include "common.h"
#include "protocol/protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uint8_t head[8] = {}, int4[4], long8[8];
    std::memcpy(head, data, std::min(size, sizeof head));
    // A value encodes back to the bytes it was read from: always for 4 bytes, and for 8 when
    // bit 31 of the lower word is clear (getLong_jms adds that word as a signed one, kept so).
    setInt_jms(int4, getInt_jms(head));
    setLong_jms(long8, getLong_jms(head));
    xajms::fuzz::check(std::memcmp(int4, head, 4) == 0 &&
                           ((head[4] & 0x80) != 0 || std::memcmp(long8, head, 8) == 0),
                       "a decoder and its encoder disagree");
    const int count = getInt_jms(head);
    const uint8_t *records = data + std::min<size_t>(size, 4);
    const long length = static_cast<long>(size - std::min<size_t>(size, 4));
    if (!xajms::protocol::recordsFit(records, length, count)) {
        return 0;
    }
    XID *xids = extractXIDs_jms(records, count);
    long at = 0;
    for (int i = 0; xids != nullptr && i < count; ++i) {
        unsigned char flat[xajms::protocol::kFlatXidClear];
        const int flatSize = flattenXIDtoJavaTypes_jms(flat, &xids[i]);
        xajms::fuzz::check(
            at + flatSize <= length && std::memcmp(flat + 8, records + at + 8, flatSize - 8) == 0,
            "an extracted XID does not flatten back to its record");
        at += flatSize;
    }
    std::free(xids);
    return 0;
}
