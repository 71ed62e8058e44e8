// Loading the switch load file with dlopen and finding its start function and broker hook.
// Without --library the tool asks for libxajms.so.1 by name: its run path points at the
// installed library directory (and at the build tree before installation).
#include "switch_library.h"

#include <dlfcn.h>

namespace xajms::drive {

namespace {

constexpr char kDefaultLibrary[] = "libxajms.so.1";

std::string loaderError() {
    const char *text = dlerror();
    return text != nullptr ? text : "unknown dynamic loader error";
}

}  // namespace

SwitchLibrary::SwitchLibrary(const std::string &path)
    : path_(path.empty() ? kDefaultLibrary : path) {
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
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
