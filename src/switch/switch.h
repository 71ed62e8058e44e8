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

// Calls jniXAJMSOpen of the fetched table; -3 (XAER_RMERR) when there is no table or slot.
int javaOpen(char *openstring, int rmid, long flags);

// A process is a broker process once ZJavaInitSwitchJMS has run in it.
inline bool isBrokerProcess() {
    return flBrokerInit_jms >= 1;
}

}  // namespace xajms::switch_
