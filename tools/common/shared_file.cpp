// Finding the other users of a registry file: its rows, from a snapshot taken with read()
// (never a mapping, so that a short file cannot fault the tool), and /proc/*/maps.
#include "common/shared_file.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>

#include "common/registry_snapshot.h"
#include "registry/registry.h"

namespace xajms::tools {

namespace {

namespace registry = xajms::registry;

// The warning stays one readable line on a machine with many users of the file.
constexpr std::size_t kShownUsers = 8;

// What is known of one other process: the rows it is registered in, whether it maps the file.
struct User {
    std::string rows;
    bool maps = false;
};

// Adds every row in use whose pid is a live process other than this one.
void addRegistered(const std::string &path, std::map<pid_t, User> &users) {
    std::string why;
    const std::optional<Snapshot> snapshot = readRegistry(path, why);
    if (!snapshot) {
        return;
    }
    for (const ShownRow &row : snapshot->rows) {
        if (row.mode != registry::kModeEmpty && row.pid != ::getpid() &&
            row.alive.value_or(false)) {
            std::string &rows = users[row.pid].rows;
            rows += (rows.empty() ? "row " : ", ") + std::to_string(row.index) + " '" +
                    escapedName(row.name) + "'";
        }
    }
}

// Whether the maps of process pid hold a mapping of the file with this device and inode.
bool mapsFile(const char *pid, const struct stat &file) {
    std::ifstream maps(std::string("/proc/") + pid + "/maps");
    std::string line;
    while (std::getline(maps, line)) {
        unsigned major = 0, minor = 0;
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(), "%*s %*s %*s %x:%x %lu", &major, &minor, &inode) == 3 &&
            inode == file.st_ino && makedev(major, minor) == file.st_dev) {
            return true;
        }
    }
    return false;
}

// Adds every process other than this one whose maps show the file.
void addMapping(const struct stat &file, std::map<pid_t, User> &users) {
    DIR *proc = ::opendir("/proc");
    if (proc == nullptr) {
        return;
    }
    while (const dirent *entry = ::readdir(proc)) {
        char *end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid > 0 && *end == '\0' && pid != ::getpid() && mapsFile(entry->d_name, file)) {
            users[static_cast<pid_t>(pid)].maps = true;
        }
    }
    ::closedir(proc);
}

bool sandboxFile(const struct stat &file) {
    const char *sandbox = std::getenv("XAJMS_SANDBOX");
    return sandbox != nullptr &&
           sandbox == std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino);
}

}  // namespace

std::string sharedFileWarning(const std::string &path, const std::string &act) {
    struct stat file {};
    if (::stat(path.c_str(), &file) != 0 || sandboxFile(file)) {
        return {};
    }
    std::map<pid_t, User> users;
    addRegistered(path, users);
    addMapping(file, users);
    if (users.empty()) {
        return {};
    }
    std::string text = "warning: " + act + " " + path + ", which other live processes use:";
    std::size_t shown = 0;
    for (const auto &[pid, user] : users) {
        if (++shown > kShownUsers) {
            text += " and " + std::to_string(users.size() - kShownUsers) + " more;";
            break;
        }
        text += " pid " + std::to_string(pid) + " (" + user.rows +
                (user.maps ? std::string(user.rows.empty() ? "" : ", ") + "maps it" : "") + ");";
    }
    return text +
           " a queue manager using this file acts on the change (xajms-sandbox gives a "
           "private file to try things in)";
}

}  // namespace xajms::tools
