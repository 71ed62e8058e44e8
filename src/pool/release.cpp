// Giving back what the pool holds when the library is unloaded: the pooled sockets and the
// pool lock. A transaction manager that loads the switch per client and unloads it at the
// last close would otherwise lose a descriptor per socket on every cycle.
#include "pool/pool.h"

namespace xajms::pool {

// A thread still inside a request (it holds the lock, or a socket it took) keeps everything:
// an unload or an exit in the middle of a call must not pull a socket from under it.
bool releaseAll() {
    const bool locked = flConnectionPoolInitialized_jms > 0;
    if (locked && pthread_rwlock_trywrlock(&iRWLock_jms) != 0) {
        return false;
    }
    ConnectionPool &pool = processConnectionPool_jms;
    const int used = usedPorts();
    bool busy = false;
    for (int r = 0; r < used && !busy; ++r) {
        const PortRow &row = pool.row[r];
        const int live = liveSlots(row);
        for (int i = 0; i < live; ++i) {
            busy = busy || row.slot[i].inUse != 0;
        }
    }
    for (int r = 0; r < used && !busy; ++r) {
        PortRow &row = pool.row[r];
        const int live = liveSlots(row);
        for (int i = 0; i < live; ++i) {
            if (row.slot[i].sockfd > 0) {
                shutAndClose(row.slot[i].sockfd);
            }
            row.slot[i] = SocketSlot{0, 0};
        }
    }
    if (locked) {
        pthread_rwlock_unlock(&iRWLock_jms);
        if (!busy) {
            pthread_rwlock_destroy(&iRWLock_jms);
            flConnectionPoolInitialized_jms = 0;
        }
    }
    return !busy;
}

}  // namespace xajms::pool
