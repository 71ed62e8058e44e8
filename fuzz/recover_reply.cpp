// A recover reply of any shape into receiveRecoverMsg_jms, through a pooled socket pair that
// ends after it: the XIDs handed back lie within their data areas, and null goes with an rc.
#include <sys/socket.h>

#include "common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) {
        return -1;  // more than a socket pair holds without a reader
    }
    xajms::fuzz::reset();
    const int peer = xajms::test::poolPeer(1, xajms::test::Bytes(data, data + size));
    shutdown(peer, SHUT_WR);  // the listener ends after its reply
    int count = -1, rc = 1;
    unsigned char buffer[1024];
    XID *xids =
        receiveRecoverMsg_jms(processConnectionPool_jms.row[0].slot[0].sockfd, &count, buffer, &rc);
    xajms::fuzz::check(
        xids == nullptr ? rc == XA_OK || rc == XAER_RMFAIL : rc == XA_OK && count > 0,
        "the result does not match the code");
    for (int i = 0; xids != nullptr && i < count; ++i) {
        const XID &x = xids[i];
        xajms::fuzz::check(x.gtrid_length >= 0 && x.bqual_length >= 0 &&
                               x.gtrid_length + x.bqual_length <= XIDDATASIZE,
                           "an XID reaches outside its data area");
    }
    std::free(xids);
    close(peer);
    return 0;
}
