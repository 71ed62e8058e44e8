// Entering the private mount namespace, mounting the tmpfs, binding the real /var back when
// the tmpfs has to cover it, and formatting the empty registry file.
#include "namespace.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "common/descriptor.h"
#include "registry/registry.h"

namespace xajms::sandbox {

namespace {

using tools::Descriptor;
namespace registry = xajms::registry;

[[noreturn]] void failWith(int err, const std::string &what) {
    throw std::system_error(err, std::generic_category(), what);
}

void writeProcFile(const char *path, const std::string &text, bool required) {
    const Descriptor fd(::open(path, O_WRONLY | O_CLOEXEC));
    const bool written =
        fd && ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!written && required) {
        failWith(errno, std::string("cannot write ") + path);
    }
}

void enterNamespace() {
    if (::geteuid() == 0) {
        if (::unshare(CLONE_NEWNS) != 0) {
            failWith(errno, "cannot enter a new mount namespace");
        }
        return;
    }
    const unsigned uid = ::geteuid();
    const unsigned gid = ::getegid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        failWith(errno,
                 "cannot enter a new user and mount namespace (are user namespaces "
                 "enabled?)");
    }
    writeProcFile("/proc/self/setgroups", "deny", false);
    writeProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1", true);
    writeProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1", true);
}

void mountTmpfs(const char *on, const char *mode) {
    if (::mount("tmpfs", on, "tmpfs", MS_NOSUID | MS_NODEV, mode) != 0) {
        failWith(errno, std::string("cannot mount a tmpfs on ") + on);
    }
}

// Recreates one entry of the real /var (read through oldVar) in the tmpfs now on /var: a
// symbolic link as a link, anything else as a mount point with the real entry bound on it.
// An entry that cannot be recreated is left out with a note on standard error.
void bindBack(int oldVar, const char *name) {
    const std::string at = std::string("/var/") + name;
    const std::string from = "/proc/self/fd/" + std::to_string(oldVar) + "/" + name;
    struct stat info {};
    if (::fstatat(oldVar, name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    bool made = false;
    if (S_ISLNK(info.st_mode)) {
        char target[4096];
        const ssize_t n = ::readlinkat(oldVar, name, target, sizeof target - 1);
        target[n > 0 ? n : 0] = '\0';
        made = n > 0 && ::symlink(target, at.c_str()) == 0;
    } else {
        const int point = S_ISDIR(info.st_mode) ? ::mkdir(at.c_str(), 0755)
                                                : Descriptor(::creat(at.c_str(), 0644)).get();
        made = point >= 0 &&
               ::mount(from.c_str(), at.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }
    if (!made) {
        std::fprintf(stderr, "xajms-sandbox: /var/%s is not visible in the sandbox\n", name);
    }
}

// Covers /var with a tmpfs, binds the real entries back, then makes /var/orlom.
void mountOverVar() {
    const int oldVar = ::open("/var", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (oldVar < 0) {
        failWith(errno, "cannot open /var");
    }
    DIR *entries = ::fdopendir(oldVar);  // owns oldVar from here on
    if (entries == nullptr) {
        ::close(oldVar);
        failWith(errno, "cannot read /var");
    }
    mountTmpfs("/var", "mode=0755");
    while (const dirent *entry = ::readdir(entries)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            bindBack(::dirfd(entries), entry->d_name);
        }
    }
    ::closedir(entries);
    if (::mkdir("/var/orlom", 0755) != 0) {
        failWith(errno, "cannot make /var/orlom");
    }
}

}  // namespace

void enterPrivateOrlom() {
    enterNamespace();
    // Mounts made from here on stay inside the namespace.
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        failWith(errno, "cannot make the mounts private");
    }
    struct stat info {};
    if (::stat("/var/orlom", &info) == 0 && S_ISDIR(info.st_mode)) {
        mountTmpfs("/var/orlom", "mode=0755");
    } else {
        mountOverVar();
    }
}

std::string formatRegistry() {
    const Descriptor fd(::open(registry::kPath, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!fd) {
        failWith(errno, std::string("cannot create ") + registry::kPath);
    }
    // The file is created 0666 whatever the umask, as every process of a queue manager and
    // every listener must be able to write it.
    registry::File file{};
    std::copy_n(registry::kPath, registry::kSignatureLength, file.header.signature);
    const auto *bytes = reinterpret_cast<const char *>(&file);
    if (::fchmod(fd.get(), 0666) != 0 ||
        ::write(fd.get(), bytes, sizeof file) != static_cast<ssize_t>(sizeof file)) {
        failWith(errno, std::string("cannot write ") + registry::kPath);
    }
    struct stat info {};
    ::fstat(fd.get(), &info);
    return std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
}

}  // namespace xajms::sandbox
