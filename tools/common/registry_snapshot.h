// A copy of the registry file taken with read(), never a mapping, so that a short or changing
// file cannot fault the tool; and the rows of it worth showing, with every field checked.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xajms::tools {

struct ShownRow {
    int index = 0;
    std::string name;  // the bytes before the first zero, at most 128
    std::int32_t port = 0;
    std::int32_t pid = 0;
    std::optional<bool> alive;  // nothing for a pid of 0 or below
    std::int32_t mode = 0;
    bool counted = true;  // below the row count
};

struct Snapshot {
    std::int32_t rowCount = 0;
    bool rowCountInRange = true;  // 0 to 500
    std::vector<ShownRow> rows;
};

// Reads the file at path. Returns the snapshot, or puts a one-line reason into `why` and
// returns nothing when the file is absent, unreadable, not a regular file, shorter than a
// registry file or without the signature.
std::optional<Snapshot> readRegistry(const std::string &path, std::string &why);

// "empty", "start-up recovery", "broker", "dead", "pending", or "unknown" for other values.
std::string modeName(std::int32_t mode);

// A name as the tools show it: printable ASCII as it is, a backslash and any other byte as
// \xNN, since names are bytes from a file anyone may write.
std::string escapedName(std::string_view name);

// Whether a process with this pid exists (a process of another user counts); nothing for a
// pid of 0 or below, which names no single process.
std::optional<bool> processAlive(pid_t pid);

}  // namespace xajms::tools
