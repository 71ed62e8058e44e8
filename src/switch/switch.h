// Internal interface of the switch-entry layer: the process role and the helpers that the
// XA entries share.
#pragma once

#include <xajms/xajms.h>

namespace xajms::switch_ {

// The open table: 500 records, rmid 999 marking an empty one.
inline constexpr int kOpenTableSize = 500;
inline constexpr uint32_t kEmptyRmid = 999;

// Copies a record's open string, which need not be terminated, into a terminated text.
void copyOpenString(const RmidOpenstrEntry &entry, char (&out)[sizeof entry.openstring + 1]);

// Held while a thread counts an open or a close, or reads or changes the open table, so that
// another thread's last close never frees the table under it. Nothing that waits on Java or a
// listener runs under it.
class OpenTableGuard {
  public:
    OpenTableGuard();
    ~OpenTableGuard();
    OpenTableGuard(const OpenTableGuard &) = delete;
    OpenTableGuard &operator=(const OpenTableGuard &) = delete;
};

// The rmid's record in the open table, or the first empty record ahead of it; null when every
// record holds another rmid. The caller holds the guard, and the table exists.
RmidOpenstrEntry *openRecord(int rmid);

// Frees the open table unless a thread is using it; for the unload, when no thread should be.
void freeOpenTableIfIdle();

// Calls jniXAJMSOpen of the fetched table; -3 (XAER_RMERR) when there is no table or slot.
int javaOpen(char *openstring, int rmid, long flags);

// A process is a broker process once ZJavaInitSwitchJMS has run in it.
inline bool isBrokerProcess() {
    return flBrokerInit_jms >= 1;
}

}  // namespace xajms::switch_
