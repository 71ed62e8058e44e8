// Asking the listeners that the registry file lists for the XIDs they hold in doubt: one
// recover request each over loopback TCP, in the library's wire format, within a bounded wait.
#pragma once

#include <string>
#include <vector>

#include "common/registry_snapshot.h"
#include "common/xid_notation.h"

namespace xajms::registry_tool {

// What became of one listener's recover request.
enum class Answer { answered, noAnswer, unreachable, badReply };

struct Asked {
    tools::ShownRow row;
    Answer answer = Answer::answered;
    std::string detail;                 // why, when it did not answer
    std::vector<tools::XidParts> xids;  // the XIDs it holds in doubt, when it answered
};

// The rmid and flags of the recover request: a whole scan, as a queue manager's recovery asks.
inline constexpr int kRecoverRmid = 1;

// Asks the listener of every row that is not empty and names a port (1 to 65535), in row
// order, each within waitMs for connecting, sending and reading the whole reply. Returns one
// entry a listener asked; rows without a listener are left out.
std::vector<Asked> askListeners(const tools::Snapshot &snapshot, int waitMs);

}  // namespace xajms::registry_tool
