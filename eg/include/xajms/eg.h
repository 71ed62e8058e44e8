/*
 * The application's side of the PostgreSQL execution group (libPellux.so): the database
 * connection on which the calling thread's work joins its transaction branch. Usable from C
 * and C++; link with -lPellux and libpq.
 */
#ifndef XAJMS_EG_H
#define XAJMS_EG_H

#include <libpq-fe.h>

#if defined(XAJMS_BUILDING_EG)
#define XAJMS_EG_API __attribute__((visibility("default")))
#else
#define XAJMS_EG_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct JNISwitchJMS;

/* The table of open, start and end entries that libxajms fetches from the companion library
 * (declared in xajms/xajms.h). */
XAJMS_EG_API struct JNISwitchJMS *JNIStartJMS(void);

/* The connection of the branch that the calling thread has started (and not ended or
 * suspended) for the rmid, or null when it has none. Statements run on it belong to the
 * branch; the connection stays the execution group's: never close it, never COMMIT or
 * ROLLBACK on it. */
XAJMS_EG_API PGconn *xajms_eg_connection(int rmid);

/* Waits up to timeout_ms milliseconds (a negative value: for ever) until the execution
 * group's listener has stopped on a "Cleanup Java Process" request. Returns 1 when it has
 * stopped, 0 when the time ran out or no listener was ever started. */
XAJMS_EG_API int xajms_eg_wait_closed(int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif /* XAJMS_EG_H */
