// Loading the switch load file with dlopen and finding its start function and broker hook.
// Without --library the tool loads the library built with it: in the build tree the one
// next to its build, once installed the one in the installed library directory.
#include "switch_library.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>

namespace xajms::drive {

namespace {

constexpr char kLibraryName[] = "libxajms.so.1";

std::string loaderError() {
    const char *text = dlerror();
    return text != nullptr ? text : "unknown dynamic loader error";
}

std::string realPath(const char *path) {
    std::array<char, PATH_MAX> resolved{};
    return realpath(path, resolved.data()) != nullptr ? resolved.data() : std::string();
}

// The library that belongs to this tool. The tool cannot leave this to its run path: a
// dlopen made through an interposed dlopen (sanitizers) searches the run path of the
// interposer, not the tool's. Returns the bare name, for the loader's own search, when the
// tool is neither in its build directory nor installed next to a library.
std::string defaultLibrary() {
    const std::string self = realPath("/proc/self/exe");
    const std::string dir = self.substr(0, self.rfind('/'));
    if (!dir.empty() && dir == realPath(XAJMS_DRIVE_BUILD_DIR)) {
        return XAJMS_DRIVE_BUILT_LIBRARY;
    }
    const std::string installed = dir + "/" XAJMS_DRIVE_BIN_TO_LIB "/" + kLibraryName;
    if (!dir.empty() && access(installed.c_str(), F_OK) == 0) {
        return installed;
    }
    return kLibraryName;
}

}  // namespace

SwitchLibrary::SwitchLibrary(const std::string &path, bool keep)
    : path_(path.empty() ? defaultLibrary() : path) {
    // A queue manager keeps its switch load file for the life of the process. RTLD_NODELETE
    // does the same here: the library's process-wide state (the open table an open left
    // allocated) stays mapped and reachable after the handle is closed, rather than turning
    // into a leak at exit.
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL | (keep ? RTLD_NODELETE : 0));
    if (handle_ == nullptr) {
        std::string reason = loaderError();
        if (path.empty()) {
            reason += " (give the switch load file with --library PATH)";
        }
        throw LoadError(reason);
    }
}

SwitchLibrary::~SwitchLibrary() {
    dlclose(handle_);
}

void *SwitchLibrary::function(const std::string &name) const {
    dlerror();
    void *address = dlsym(handle_, name.c_str());
    if (address == nullptr) {
        throw LoadError(path_ + " has no function " + name);
    }
    return address;
}

}  // namespace xajms::drive
