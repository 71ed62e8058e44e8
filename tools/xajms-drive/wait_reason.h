// Why a call took seconds: what the library waits for, told from how the registry file
// changed across the call and what it shows once the call has returned.
#pragma once

#include <optional>
#include <string>

#include "common/registry_snapshot.h"

namespace xajms::drive {

// A call that took at least this long is explained on standard error.
inline constexpr double kSlowCallMs = 1000;

// The registry file the library reads; nothing, with the reason in why, when it cannot be
// read.
std::optional<tools::Snapshot> registryNow(std::string &why);

// The explanation of a call that took tookMs, as one line without the newline. `before` is
// the file as it was before the call (or before an earlier slow call), `after` as it is
// now, `why` the reason there is no `after`. The library's three waits are told apart:
// - no listener registered (no broker or pending row): it looks 3 times, a second apart;
// - a row that turned dead across the call: its port refused connections, 3 attempts a
//   second apart, then the library marked the row dead;
// - registered listeners, when no row turned dead or the call took 60 s: it waits up to
//   60 s for each listener's answer.
std::string waitReason(const std::optional<tools::Snapshot> &before,
                       const std::optional<tools::Snapshot> &after, const std::string &why,
                       double tookMs);

}  // namespace xajms::drive
