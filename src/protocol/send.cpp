// Writing one request to a listener's socket: the whole request in a single send call.
#include "protocol/protocol.h"

#include <sys/socket.h>

namespace xajms::protocol {

// MSG_NOSIGNAL: a listener that has gone away must not take the host down with SIGPIPE;
// the write fails with EPIPE instead and the caller treats it as any failed write.
long sendRequest(int sockfd, const unsigned char *request, int length) {
    return send(sockfd, request, static_cast<size_t>(length), MSG_NOSIGNAL);
}

}  // namespace xajms::protocol
