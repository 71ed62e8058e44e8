// Internal interface of the connection pool and socket I/O: action codes, result codes and
// limits of the pool table, and the table helpers that the get, return, refresh and clear
// operations share.
#pragma once

#include <xajms/xajms.h>

#include <cstdint>

namespace xajms::pool {

// Action codes of connectionSocketPool_jms.
inline constexpr int kActionGet = 10;
inline constexpr int kActionReturn = 20;
inline constexpr int kActionRefresh = 30;
inline constexpr int kActionClear = 40;

// The port argument of a clear that empties every row.
inline constexpr int kAllPorts = -1;

// Results of poolGetNext_jms besides a descriptor: no connection could be made, every one of
// the port's 30 sockets is in use, or the port is new and the table is full.
inline constexpr int kNoSocket = 0;
inline constexpr int kSocketsExhausted = -1;
inline constexpr int kPortsExhausted = -2;

// Results of the timed reads besides a byte count.
inline constexpr int kReadFailed = -1;
inline constexpr int kTimedOut = -99;

// Result of poolReturnAndRefresh_jms, whatever happened.
inline constexpr int kRefreshResult = -1;

// Size of the table: port rows per process and socket slots per port.
inline constexpr int kMaxPorts = 500;
inline constexpr int kMaxSockets = 30;

// Attempts of an action-10 get, and the seconds slept after each failed one.
inline constexpr int kGetAttempts = 3;
inline constexpr unsigned kRetrySleepSeconds = 1;

// Interrupted waits and would-block receives tolerated by one recvTimeout_jms call.
inline constexpr int kMaxFailures = 99;

// Share of idle sockets, in percent, above which a return shrinks a port's sockets, and the
// number of sockets a port must exceed before the share is looked at.
inline constexpr int kIdleShareLimit = 60;
inline constexpr int kShrinkMinimumRows = 5;

// The number of port rows that may be read: numPorts cut to 0 .. 500.
int usedPorts();

// The number of a row's slots that may be read: rows cut to 0 .. 30.
int liveSlots(const PortRow &row);

// Index of the first slot below liveSlots(row) that holds sockfd, or -1; -1 as well when
// the calling thread has closed that descriptor number itself (see closedByMe).
int findSlot(const PortRow &row, int sockfd);

// Adds delta to a counter with two's-complement wrap-around, so that a drifting `available`
// never overflows into undefined behaviour.
int32_t wrapAdd(int32_t value, int32_t delta);

// Shuts a descriptor down for reading, then for writing, and closes it; the results are
// not examined. Descriptor 0, which an emptied slot holds, names no socket of the pool and
// is left alone: closing it would close the host's standard input, or a trace file or new
// socket that took the number, which the pool would then take for no socket. A hardened
// process leaves a negative descriptor alone too.
void shutAndClose(int sockfd);

// The callers that hold sockets of the pool, kept by the calling thread and called under the
// pool lock. An action-10 get records its socket with hold(), which first ends the thread's
// earlier hold; actions 20 and 30 give it back with giveBack() (last for 30, after which the
// thread names it no more) and action 40 ends the hold with endHold(). A socket detached
// while held is closed at its holder's give-back or end of hold, not before.
void hold(int sockfd);
void giveBack(int sockfd, bool last);
void endHold();
// A caller whose request could not be written leaves its socket in its slot, in use, and
// names it no more: it is no longer held (a clear closes it), or closed now when a clear has
// detached it already. Needs no pool lock.
void abandon(int sockfd);

// Asked before a clear or refresh closes the socket of an in-use slot: when a caller holds it
// (a caller other than the calling thread, with othersOnly), marks it to be closed when its
// holder gives it back, leaves it open meanwhile, and returns true.
bool detachIfHeld(int sockfd, bool othersOnly);

// True when the calling thread closed this descriptor number at its last give-back: the
// number may since name another caller's new socket, which that thread must not touch.
bool closedByMe(int sockfd);

// After the top slot was emptied: lowers rows past it and past every further empty slot
// below, stopping at a slot that holds a descriptor or at 0.
void lowerRows(PortRow &row);

// Closes every pooled socket and destroys the pool lock, unless a thread holds a socket or
// the lock at this moment: then nothing is touched and false is returned. Only the
// library's unload calls it, without tracing.
bool releaseAll();

// How the process deals with a failed exchange with a listener. Exact until a start function
// fixes it: OrloStart fixes exact, OrloStartSafe hardened, and the first fix holds for the
// life of the process. Hardened, a failed read leaves the pool alone (its caller replaces
// only its own socket), a clear leaves the sockets callers hold, a refreshed socket is one
// its caller still holds, an emptied slot's descriptor 0 is never closed, and a request that
// was not delivered is sent once more on a fresh connection.
enum class Mode : int { kUnset, kExact, kHardened };
// Fixes the mode unless a start function has fixed it already; returns the mode in force.
Mode fixMode(Mode wanted);
bool hardened();

// A new connection for the port, never an idle pooled socket (which may be as stale as the
// one that just failed), marked in use in an emptied slot or above the live slots; taken
// under the pool lock. Returns the descriptor, or 0 when none could be made or kept.
int getFresh(int port);

}  // namespace xajms::pool
