// Taking the snapshot of the registry file: open, check it is a regular file, read all of it,
// check the signature, then pick the rows to show: every row below the row count (at most
// the 500 rows of the file) and any row at or beyond it that is in use.
#include "common/registry_snapshot.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include "common/descriptor.h"
#include "registry/registry.h"

namespace xajms::tools {

namespace {

namespace registry = xajms::registry;

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

// Reads up to size bytes; returns how many came, or -1 with errno on a read error.
ssize_t readAll(int fd, char *to, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = read(fd, to + got, size - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

// The whole file, or nothing with the reason in why.
std::unique_ptr<registry::File> readFile(const std::string &path, std::string &why) {
    const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        why = path + ": cannot open the registry file: " + errnoText(errno);
        return nullptr;
    }
    struct stat info {};
    if (fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        why = path + ": not a regular file";
        return nullptr;
    }
    auto file = std::make_unique<registry::File>();
    const ssize_t got = readAll(fd.get(), reinterpret_cast<char *>(file.get()), sizeof *file);
    if (got < 0) {
        why = path + ": cannot read the registry file: " + errnoText(errno);
        return nullptr;
    }
    if (got < registry::kFileSize) {
        why = path + ": not a formatted registry file (" + std::to_string(got) + " of " +
              std::to_string(registry::kFileSize) + " bytes)";
        return nullptr;
    }
    if (std::memcmp(file->header.signature, registry::kPath, registry::kSignatureLength) != 0) {
        why = path + ": not a formatted registry file (no signature)";
        return nullptr;
    }
    return file;
}

ShownRow showRow(const registry::Row &row, int index, bool counted) {
    ShownRow shown;
    shown.index = index;
    shown.name.assign(row.ExGrp, strnlen(row.ExGrp, sizeof row.ExGrp));
    shown.port = row.port;
    shown.pid = row.pid;
    shown.alive = processAlive(row.pid);
    shown.mode = row.mode;
    shown.counted = counted;
    return shown;
}

bool inUse(const registry::Row &row) {
    return row.mode != registry::kModeEmpty || row.pid != 0 || row.port != 0;
}

}  // namespace

std::optional<Snapshot> readRegistry(const std::string &path, std::string &why) {
    const std::unique_ptr<registry::File> file = readFile(path, why);
    if (!file) {
        return std::nullopt;
    }
    Snapshot snapshot;
    snapshot.rowCount = file->header.rowCount;
    snapshot.rowCountInRange = snapshot.rowCount >= 0 && snapshot.rowCount <= registry::kRows;
    const int counted = registry::rowsExclusive(snapshot.rowCount);
    for (int i = 0; i < registry::kRows; ++i) {
        const registry::Row &row = file->row[static_cast<std::size_t>(i)];
        if (i < counted || inUse(row)) {
            snapshot.rows.push_back(showRow(row, i, i < counted));
        }
    }
    return snapshot;
}

std::string modeName(std::int32_t mode) {
    constexpr std::array<const char *, 5> kNames = {"empty", "start-up recovery", "broker", "dead",
                                                    "pending"};
    if (mode < 0 || mode >= static_cast<std::int32_t>(kNames.size())) {
        return "unknown";
    }
    return kNames[static_cast<std::size_t>(mode)];
}

std::string escapedName(std::string_view name) {
    std::string shown;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f && c != '\\') {
            shown += c;
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", byte);
            shown += hex;
        }
    }
    return shown;
}

std::optional<bool> processAlive(pid_t pid) {
    if (pid <= 0) {
        return std::nullopt;
    }
    return kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace xajms::tools
