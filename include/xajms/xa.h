/*
 * X/Open XA types that a transaction manager uses with an XA switch load file:
 * the transaction identifier, the switch record, return codes and flags.
 * Usable from C and C++.
 */
#ifndef XAJMS_XA_H
#define XAJMS_XA_H

#ifdef __cplusplus
extern "C" {
#endif

#define XIDDATASIZE 128 /* size of the data area of an XID, in bytes */
#define MAXGTRIDSIZE 64 /* largest global transaction id */
#define MAXBQUALSIZE 64 /* largest branch qualifier */

/* Transaction branch identifier. A formatID of -1 means a null XID. */
struct xid_t {
    long formatID;
    long gtrid_length;
    long bqual_length;
    char data[XIDDATASIZE];
};
typedef struct xid_t XID;

#define RMNAMESZ 32 /* length of a resource manager name, with its terminator */

/* The switch record through which a transaction manager reaches a resource manager. */
struct xa_switch_t {
    char name[RMNAMESZ];
    long flags;
    long version;
    int (*xa_open_entry)(char *, int, long);
    int (*xa_close_entry)(char *, int, long);
    int (*xa_start_entry)(XID *, int, long);
    int (*xa_end_entry)(XID *, int, long);
    int (*xa_rollback_entry)(XID *, int, long);
    int (*xa_prepare_entry)(XID *, int, long);
    int (*xa_commit_entry)(XID *, int, long);
    int (*xa_recover_entry)(XID *, long, int, long);
    int (*xa_forget_entry)(XID *, int, long);
    int (*xa_complete_entry)(int *, int *, int, long);
};

/* Flags of the switch record and of the XA calls. */
#define TMNOFLAGS 0x00000000L
#define TMREGISTER 0x00000001L
#define TMNOMIGRATE 0x00000002L
#define TMUSEASYNC 0x00000004L
#define TMASYNC 0x80000000L
#define TMONEPHASE 0x40000000L
#define TMFAIL 0x20000000L
#define TMNOWAIT 0x10000000L
#define TMRESUME 0x08000000L
#define TMSUCCESS 0x04000000L
#define TMSUSPEND 0x02000000L
#define TMSTARTRSCAN 0x01000000L
#define TMENDRSCAN 0x00800000L
#define TMMULTIPLE 0x00400000L
#define TMJOIN 0x00200000L
#define TMMIGRATE 0x00100000L

/* Return codes of ax_reg and ax_unreg. */
#define TM_JOIN 2
#define TM_RESUME 1
#define TM_OK 0
#define TMER_TMERR (-1)
#define TMER_INVAL (-2)
#define TMER_PROTO (-3)

/* Return codes of the xa_ calls. */
#define XA_RBBASE 100
#define XA_RBROLLBACK XA_RBBASE
#define XA_RBCOMMFAIL (XA_RBBASE + 1)
#define XA_RBDEADLOCK (XA_RBBASE + 2)
#define XA_RBINTEGRITY (XA_RBBASE + 3)
#define XA_RBOTHER (XA_RBBASE + 4)
#define XA_RBPROTO (XA_RBBASE + 5)
#define XA_RBTIMEOUT (XA_RBBASE + 6)
#define XA_RBTRANSIENT (XA_RBBASE + 7)
#define XA_RBEND XA_RBTRANSIENT

#define XA_NOMIGRATE 9
#define XA_HEURHAZ 8
#define XA_HEURCOM 7
#define XA_HEURRB 6
#define XA_HEURMIX 5
#define XA_RETRY 4
#define XA_RDONLY 3
#define XA_OK 0
#define XAER_ASYNC (-2)
#define XAER_RMERR (-3)
#define XAER_NOTA (-4)
#define XAER_INVAL (-5)
#define XAER_PROTO (-6)
#define XAER_RMFAIL (-7)
#define XAER_DUPID (-8)
#define XAER_OUTSIDE (-9)

#ifdef __cplusplus
}
#endif

#endif /* XAJMS_XA_H */
