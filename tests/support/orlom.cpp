// Private mount namespace with a tmpfs on /var/orlom: as root a plain mount namespace,
// otherwise a user namespace first in which this process is root.
#include "support/orlom.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace xajms::test {
namespace {

std::string failure(const char *what) {
    char text[256];
    std::snprintf(text, sizeof text, "%s failed: %s", what, std::strerror(errno));
    return text;
}

bool writeFile(const char *path, const char *text) {
    const int fd = open(path, O_WRONLY);
    if (fd < 0) {
        return false;
    }
    const auto length = static_cast<ssize_t>(std::strlen(text));
    const bool ok = write(fd, text, static_cast<size_t>(length)) == length;
    close(fd);
    return ok;
}

std::string enterNamespace() {
    if (geteuid() == 0) {
        return unshare(CLONE_NEWNS) == 0 ? "" : failure("unshare(CLONE_NEWNS)");
    }
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return failure("unshare(CLONE_NEWUSER | CLONE_NEWNS)");
    }
    char map[64];
    std::snprintf(map, sizeof map, "0 %u 1", static_cast<unsigned>(uid));
    writeFile("/proc/self/setgroups", "deny");
    if (!writeFile("/proc/self/uid_map", map)) {
        return failure("writing /proc/self/uid_map");
    }
    std::snprintf(map, sizeof map, "0 %u 1", static_cast<unsigned>(gid));
    if (!writeFile("/proc/self/gid_map", map)) {
        return failure("writing /proc/self/gid_map");
    }
    return "";
}

// Mounts the tmpfs on /var/orlom, or on /var when the machine has no /var/orlom to mount on.
std::string mountTmpfs() {
    // A change of propagation ignores source and type; naming them keeps memcheck, which
    // reads them as strings, from reporting a null pointer.
    if (mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
        return failure("making / private");
    }
    struct stat info {};
    if (stat("/var/orlom", &info) == 0 && S_ISDIR(info.st_mode)) {
        return mount("tmpfs", "/var/orlom", "tmpfs", 0, "mode=0777") == 0
                   ? ""
                   : failure("mounting a tmpfs on /var/orlom");
    }
    if (mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0) {
        return failure("mounting a tmpfs on /var");
    }
    return mkdir("/var/orlom", 0777) == 0 ? "" : failure("mkdir /var/orlom");
}

}  // namespace

std::string enterPrivateOrlom() {
    static const std::string result = [] {
        std::string why = enterNamespace();
        if (why.empty()) {
            why = mountTmpfs();
        }
        return why.empty() ? why : "no private /var/orlom: " + why;
    }();
    return result;
}

}  // namespace xajms::test
