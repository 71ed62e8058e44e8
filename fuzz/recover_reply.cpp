// A recover reply of any shape, fed to receiveRecoverMsg_jms through a pooled socket pair
// that ends after it: whatever the listener announced, the XIDs handed back lie within their
// data areas, and a reply that is refused leaves XAER_RMFAIL and no XIDs.
#include "common.h"

namespace fuzz = xajms::fuzz;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::enterPrivateOrlom();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) {
        return -1;  // more than a socket pair holds without a reader
    }
    fuzz::discardTrace();
    const int peer = fuzz::pooledListener(1, {data, size});
    int count = -1;
    int rc = 1;
    unsigned char buffer[1024];
    XID *xids =
        receiveRecoverMsg_jms(processConnectionPool_jms.row[0].slot[0].sockfd, &count, buffer, &rc);
    if (xids == nullptr ? rc != XA_OK && rc != XAER_RMFAIL : rc != XA_OK || count < 1) {
        fuzz::fail("the result does not match the code");
    }
    for (int i = 0; xids != nullptr && i < count; ++i) {
        const long gtrid = xids[i].gtrid_length;
        const long bqual = xids[i].bqual_length;
        if (gtrid < 0 || bqual < 0 || gtrid + bqual > XIDDATASIZE) {
            fuzz::fail("an XID reaches outside its data area");
        }
    }
    std::free(xids);
    fuzz::emptyPool();
    close(peer);
    return 0;
}
