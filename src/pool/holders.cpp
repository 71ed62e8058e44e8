// Which caller holds which pooled socket, from its get to its give-back. A clear or refresh
// that meets a socket in use takes it out of the table but leaves it open to its holder,
// which closes it when it gives it back: a descriptor closed under its holder would have its
// number reused by the next connection, and the holder would then read or write another
// caller's exchange. The record has a mutex of its own, taken inside the pool lock where both
// are taken, so that a caller that abandons its socket needs no pool lock (and no trace).
#include "pool/pool.h"

#include <pthread.h>

namespace {

enum class State {
    holding,   // the socket is the holder's, in its slot
    detached,  // out of the table, still the holder's until it gives it back
    closed,    // closed when its holder gave it back: a refresh of that number that the
               // holder sends after the give-back no longer names a socket of the pool
};

struct Holder {
    pthread_t thread;
    int sockfd;
    State state;
};

// One entry per thread that holds a socket or has just given back a detached one. A thread
// beyond the last entry is not recorded: its sockets are closed under it, as they always were.
constexpr int kMaxHolders = 1024;
Holder holders[kMaxHolders];
int used = 0;

pthread_mutex_t holdersLock = PTHREAD_MUTEX_INITIALIZER;

// Holds the record's mutex for one scope.
class Guard {
  public:
    Guard() { pthread_mutex_lock(&holdersLock); }
    ~Guard() { pthread_mutex_unlock(&holdersLock); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;
};

Holder *mine() {
    const pthread_t self = pthread_self();
    for (int i = 0; i < used; ++i) {
        if (pthread_equal(holders[i].thread, self) != 0) {
            return &holders[i];
        }
    }
    return nullptr;
}

void forget(Holder *h) {
    *h = holders[used - 1];
    used -= 1;
}

void closeDetached(Holder &h) {
    if (h.state == State::detached) {
        xajms::pool::shutAndClose(h.sockfd);
        h.state = State::closed;
    }
}

// Ends the calling thread's hold: a detached socket is closed, the entry forgotten.
void endMine() {
    Holder *h = mine();
    if (h != nullptr) {
        closeDetached(*h);
        forget(h);
    }
}

}  // namespace

namespace xajms::pool {

void hold(int sockfd) {
    const Guard guard;
    endMine();
    if (used < kMaxHolders) {
        holders[used] = Holder{pthread_self(), sockfd, State::holding};
        used += 1;
    }
}

void giveBack(int sockfd, bool last) {
    const Guard guard;
    Holder *h = mine();
    if (h == nullptr || h->sockfd != sockfd) {
        return;
    }
    closeDetached(*h);
    // After a return, the same caller may still refresh the same number.
    if (last || h->state == State::holding) {
        forget(h);
    }
}

void endHold() {
    const Guard guard;
    endMine();
}

void abandon(int sockfd) {
    const Guard guard;
    const Holder *h = mine();
    if (h != nullptr && h->sockfd == sockfd) {
        endMine();
    }
}

bool detachIfHeld(int sockfd, bool othersOnly) {
    const Guard guard;
    const pthread_t self = pthread_self();
    for (int i = 0; i < used; ++i) {
        Holder &h = holders[i];
        if (h.sockfd != sockfd || h.state != State::holding ||
            (othersOnly && pthread_equal(h.thread, self) != 0)) {
            continue;
        }
        h.state = State::detached;
        return true;
    }
    return false;
}

bool closedByMe(int sockfd) {
    const Guard guard;
    const Holder *h = mine();
    return h != nullptr && h->sockfd == sockfd && h->state == State::closed;
}

}  // namespace xajms::pool
