// The two ways xajms-registry shows a snapshot, and the XIDs its listeners hold in doubt: a
// table for people and JSON for scripts.
#pragma once

#include <string>

#include "common/registry_snapshot.h"
#include "in_doubt.h"

namespace xajms::registry_tool {

using tools::modeName;
using tools::ShownRow;
using tools::Snapshot;

std::string table(const std::string &path, const Snapshot &snapshot);
std::string json(const std::string &path, const Snapshot &snapshot);

// What askListeners found, asked within waitMs each: a line per listener with the XIDs it
// holds in doubt on the lines below it, or why it did not answer.
std::string inDoubtTable(const std::string &path, const std::vector<Asked> &asked, int waitMs);
std::string inDoubtJson(const std::string &path, const std::vector<Asked> &asked, int waitMs);

}  // namespace xajms::registry_tool
