// The process's connection pool table and the helpers that keep every reading of it inside
// its 500 port rows and 30 socket slots, whatever numPorts and rows hold.
#include "pool/pool.h"

#include <sys/socket.h>
#include <unistd.h>

extern "C" {
ConnectionPool processConnectionPool_jms = {};
}

namespace xajms::pool {

int usedPorts() {
    const int32_t used = processConnectionPool_jms.numPorts;
    if (used < 0) {
        return 0;
    }
    return used > kMaxPorts ? kMaxPorts : used;
}

int liveSlots(const PortRow &row) {
    if (row.rows < 0) {
        return 0;
    }
    return row.rows > kMaxSockets ? kMaxSockets : row.rows;
}

int findSlot(const PortRow &row, int sockfd) {
    if (closedByMe(sockfd)) {
        return -1;
    }
    const int live = liveSlots(row);
    for (int i = 0; i < live; ++i) {
        if (row.slot[i].sockfd == sockfd) {
            return i;
        }
    }
    return -1;
}

int32_t wrapAdd(int32_t value, int32_t delta) {
    return static_cast<int32_t>(static_cast<uint32_t>(value) + static_cast<uint32_t>(delta));
}

void shutAndClose(int sockfd) {
    // An emptied slot holds descriptor 0, which the pool does not own: it stays open (often
    // the host's standard input), so that no socket can land on the pool's "no connection".
    if (sockfd == 0 || (sockfd < 0 && hardened())) {
        return;
    }
    shutdown(sockfd, SHUT_RD);
    shutdown(sockfd, SHUT_WR);
    close(sockfd);
}

void lowerRows(PortRow &row) {
    int rows = liveSlots(row);
    if (rows > 0) {
        rows -= 1;
    }
    while (rows > 0 && row.slot[rows - 1].sockfd == 0) {
        rows -= 1;
    }
    row.rows = rows;
}

}  // namespace xajms::pool
