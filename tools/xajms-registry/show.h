// The two ways xajms-registry shows a snapshot: a table for people and JSON for scripts.
#pragma once

#include <string>

#include "common/registry_snapshot.h"

namespace xajms::registry_tool {

using tools::modeName;
using tools::ShownRow;
using tools::Snapshot;

std::string table(const std::string &path, const Snapshot &snapshot);
std::string json(const std::string &path, const Snapshot &snapshot);

}  // namespace xajms::registry_tool
