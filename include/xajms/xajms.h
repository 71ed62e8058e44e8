/*
 * Everything libxajms exports: the start function and switch record that a transaction
 * manager uses, the broker-side start-up hooks, the trace facility, the registry, pool and
 * listener operations that other modules call, and the process-wide data they look up.
 * Usable from C and C++, a strict ISO C host (-std=c11) included: the pool lock, a POSIX
 * read-write lock, is declared only where the C library shows that type (see iRWLock_jms).
 */
#ifndef XAJMS_XAJMS_H
#define XAJMS_XAJMS_H

#include <pthread.h>
#include <stdint.h>

#include "xa.h"

#if defined(XAJMS_BUILDING_LIBRARY)
#define XAJMS_API __attribute__((visibility("default")))
#else
#define XAJMS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Switch record and start function ------------------------------------------------ */

XAJMS_API extern struct xa_switch_t jta_switch_jms;
XAJMS_API extern int iOrloStart_jms;
XAJMS_API extern char *libpath;
XAJMS_API struct xa_switch_t *OrloStart(void);
/* The hardened switch: the same entries, whose process then treats an undelivered request,
 * the fold of several listeners' answers, a failed read and recover safely (README, "Which
 * start function?"). The first start function called fixes the mode of the process; the
 * other one then returns null. */
XAJMS_API struct xa_switch_t *OrloStartSafe(void);

/* ---- Process state and broker start-up hooks ----------------------------------------- */

/* The table of Java entry points that the companion library's "JNIStartJMS" hands out. */
struct JNISwitchJMS {
    int (*jniXAJMSOpen)(char *openstring, int rmid, long flags);
    void (*jniReserved)(void);
    int (*jniXAJMSStart)(XID *xid, int rmid, long flags);
    int (*jniXAJMSEnd)(XID *xid, int rmid, long flags);
};

/* One record of the rmid to open-string table; rmid 999 marks an empty record. */
typedef struct RmidOpenstrEntry {
    uint32_t rmid;
    char openstring[256];
} RmidOpenstrEntry;

XAJMS_API extern int flBrokerInit_jms;
XAJMS_API extern int flRecoveryInit_jms;
XAJMS_API extern int flGotJNISwitch_jms;
XAJMS_API extern int flBrokerHasDeployed_jms;
XAJMS_API extern int intXAOpen_jms;
XAJMS_API extern int intClearedConnectionPool_jms;
XAJMS_API extern struct JNISwitchJMS *pJNI_Switch;
XAJMS_API extern RmidOpenstrEntry *pRmidOpenstrTable;
XAJMS_API extern long RecoveryFlags_jms;
XAJMS_API extern int RecoveryRmid_jms;
XAJMS_API extern char RecoveryArgs_jms[1536];
XAJMS_API extern char vStrJavaCommand_jms[1024];
XAJMS_API extern XID globalXid;
XAJMS_API extern XID *pglobalXid;

XAJMS_API long ZJavaInitSwitchJMS(void);
XAJMS_API long ZJavaInitRecoverJMS(void);

/* ---- XA entries ---------------------------------------------------------------------- */

XAJMS_API int xa_open_entry_jms(char *openstring, int rmid, long flags);
XAJMS_API int xa_close_entry_jms(char *openstring, int rmid, long flags);
XAJMS_API void GetJNISwitch_jms(void);
XAJMS_API int xa_start_entry_jms(XID *xid, int rmid, long flags);
XAJMS_API int xa_end_entry_jms(XID *xid, int rmid, long flags);
XAJMS_API int xa_rollback_entry_jms(XID *xid, int rmid, long flags);
XAJMS_API int xa_prepare_entry_jms(XID *xid, int rmid, long flags);
XAJMS_API int xa_commit_entry_jms(XID *xid, int rmid, long flags);
XAJMS_API int xa_recover_entry_jms(XID *xids, long count, int rmid, long flags);
XAJMS_API int xa_forget_entry_jms(XID *xid, int rmid, long flags);
XAJMS_API int xa_complete_entry_jms(int *handle, int *retval, int rmid, long flags);

/* ---- XA code names ------------------------------------------------------------------- */

XAJMS_API void XARCToStr_jms(const char *callname, int code);
XAJMS_API int intToAlpha_jms(int value, char *dst);

/* ---- Trace facility ------------------------------------------------------------------ */

XAJMS_API extern int iIndent;
XAJMS_API extern char vStrTrace_jms[5];
XAJMS_API extern char vStrTraceFile_jms[512];

XAJMS_API void traceJMSEntry(const char *prefix, const char *component, const char *function);
XAJMS_API void traceJMSEntryData(const char *prefix, const char *component, const char *function,
                                 const char *data);
XAJMS_API void traceJMSExit(const char *prefix, const char *component, const char *function);
XAJMS_API void traceJMSExitData(const char *prefix, const char *component, const char *function,
                                const char *data);
XAJMS_API void traceJMSData(const char *prefix, const char *component, const char *function,
                            const char *data);
XAJMS_API void traceJMSMsgFlags(const char *prefix, const char *component, const char *function,
                                unsigned long flags);
XAJMS_API void traceJMSformattedXID(const char *prefix, const char *component, const char *function,
                                    const XID *xid);
XAJMS_API int getTimeStamp(char *out);
XAJMS_API int indent(char *out);

/* ---- Registry file ------------------------------------------------------------------- */

XAJMS_API extern int hMapFile_jms;
XAJMS_API extern void *shared_memory_loc;
XAJMS_API extern void *shared_stuff;

XAJMS_API void *GetSharedMemory_jms(void);
XAJMS_API int ClearSharedMemory_jms(void);

XAJMS_API int GetBrokerPorts_jms(void *registry, int *ports);
XAJMS_API int CheckForBroker_jms(void *registry);
XAJMS_API int GetStartUpRecoveryPort_jms(void *registry);
XAJMS_API int CheckForPendingSlot_jms(void);
XAJMS_API int CheckForStartUpRecovery_jms(void);
XAJMS_API int GetPendingPort_jms(void *registry, int *ports);
XAJMS_API int markRecoveryPortDead_jms(void *registry);
XAJMS_API void markBrokerPortDead_jms(int port);

/* ---- Connections, pool, pool lock and timed reads ------------------------------------- */

typedef struct SocketSlot {
    int32_t sockfd; /* connected descriptor, 0 for an empty slot */
    int32_t inUse;  /* 1 while a caller holds the socket */
} SocketSlot;

typedef struct PortRow {
    int32_t port;      /* listener port on the local host */
    int32_t rows;      /* slots 0 .. rows-1 are live */
    int32_t available; /* running count of idle sockets; may drift from the slots */
    SocketSlot slot[30];
} PortRow;

typedef struct ConnectionPool {
    int32_t numPorts; /* port rows in use, 0 to 500 */
    PortRow row[500];
} ConnectionPool;

XAJMS_API extern int flSocketInit_jms;
XAJMS_API extern ConnectionPool processConnectionPool_jms;
/* Read-write locks belong to POSIX.1-2001: a C host compiled with a strict ISO standard sees
 * the lock only when it asks for POSIX (_POSIX_C_SOURCE 200112L or later, _XOPEN_SOURCE 500
 * or later, _GNU_SOURCE or _DEFAULT_SOURCE), as it must to call the lock functions at all. */
#if defined(__cplusplus) || !defined(__STRICT_ANSI__) ||                  \
    (defined(_POSIX_C_SOURCE) && _POSIX_C_SOURCE >= 200112L) ||         \
    (defined(_XOPEN_SOURCE) && _XOPEN_SOURCE >= 500)
XAJMS_API extern pthread_rwlock_t iRWLock_jms;
#endif
XAJMS_API extern int flConnectionPoolInitialized_jms;
XAJMS_API extern int flSocketBrokerHasDeployed_jms;

XAJMS_API int makeConnection_jms(int port);
XAJMS_API void connectionSocketPool_jms(int port, int *sockfd, int action);
XAJMS_API int poolGetNext_jms(int port);
XAJMS_API void poolReturn_jms(int port, int returnSockfd);
XAJMS_API int poolReturnAndRefresh_jms(int port, int returnSockfd);
XAJMS_API void poolClear_jms(int port);
XAJMS_API void poolListContents(void);
XAJMS_API void initializeConnectionPoolLock_jms(void);
XAJMS_API void lockConnectionPool_jms(void);
XAJMS_API void unlockConnectionPool_jms(void);
XAJMS_API void deleteConnectionPoolLock_jms(void);
XAJMS_API int recvTimeout_jms(int sockfd, void *buffer, int len, int zeroHour);
XAJMS_API int readFromSocket_jms(int sockfd, unsigned char *buffer, int length, int timeout);

/* ---- Listener protocol --------------------------------------------------------------- */

XAJMS_API extern int flFirstStartUpRecovery_jms;

XAJMS_API void setInt_jms(unsigned char *buffer, int value);
XAJMS_API void setLong_jms(unsigned char *buffer, long value);
XAJMS_API int getInt_jms(const unsigned char *buffer);
XAJMS_API long getLong_jms(const unsigned char *buffer);
XAJMS_API void buildHeader_jms(unsigned char *buffer, int msgSize, int msgType, int rmid,
                               long flags);
XAJMS_API int flattenXIDtoJavaTypes_jms(unsigned char *out, const XID *xid);
XAJMS_API XID *extractXIDs_jms(const unsigned char *data, int count);

XAJMS_API int receiveXARC_jms(int sockfd, unsigned char *buffer);
XAJMS_API int callEGListeners_jms(const XID *xid, int rmid, long flags, int msgType);
XAJMS_API int sendXAPrepare_jms(const XID *xid, int rmid, long flags);
XAJMS_API int sendXACommit_jms(const XID *xid, int rmid, long flags);
XAJMS_API int sendXARollback_jms(const XID *xid, int rmid, long flags);
XAJMS_API int sendXAForget_jms(const XID *xid, int rmid, long flags);
XAJMS_API int sendXAClose_jms(const char *text, int rmid, long flags);
XAJMS_API XID *receiveRecoverMsg_jms(int sockfd, int *xidcount, unsigned char *buffer, int *rc);
XAJMS_API int sendBrokerXARecover_jms(XID *xids, long count, int rmid, long flags);
XAJMS_API int sendStartUpXARecover_jms(XID *xids, long count, int rmid, long flags);

#ifdef __cplusplus
}
#endif

#endif /* XAJMS_XAJMS_H */
