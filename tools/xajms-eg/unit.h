// One unit of work through the switch: one message moved from the source queue to the target
// queue under one XID, with the host acting as its own coordinator: prepare each branch,
// record the decision, commit each, forget the decision; or roll every branch back.
#pragma once

#include <xajms/xa.h>

#include <string>
#include <vector>

#include "decisions.h"
#include "options.h"

namespace xajms::eg_host {

// What every unit of one process shares.
struct Host {
    xa_switch_t *sw = nullptr;
    std::vector<int> rmids;  // {1} for one resource, {1, 2} for two; 1 holds the source queue
    DecisionLog *log = nullptr;
    UnitPoint crash;
    UnitPoint pause;
    std::string run;  // what makes this process's gtrids differ from every other's
};

// The formatID of every XID of the host.
inline constexpr long kFormatId = 0x78656721;

enum class UnitEnd { moved, empty, failed };

// Runs unit number n on the calling thread. moved: the message is in the target queue;
// empty: the source queue had no free message and nothing changed; failed: why says what
// went wrong and what becomes of the unit (rolled back, or committed by the next recovery).
UnitEnd runUnit(const Host &host, long n, std::string &why);

// "F:gtrid:bqual", formatID in hex and the bytes as text where printable, else in hex.
std::string xidText(const XID &xid);

}  // namespace xajms::eg_host
