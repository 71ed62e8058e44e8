// The holder of the test companion library.
#include "support/pellux.h"

#include <dlfcn.h>

#include "support/fakes.h"

namespace xajms::test {

Pellux::Pellux() : handle_(realDlopen(XAJMS_PELLUX_PATH, RTLD_NOW | RTLD_GLOBAL)) {}

Pellux::~Pellux() {
    if (handle_ != nullptr) {
        dlclose(handle_);
    }
}

void Pellux::answer(int open, int start, int end) {
    auto reset = reinterpret_cast<void (*)(int, int, int)>(dlsym(handle_, "pelluxReset"));
    reset(open, start, end);
}

std::vector<PelluxCall> Pellux::calls() const {
    auto count = reinterpret_cast<int (*)()>(dlsym(handle_, "pelluxCallCount"));
    auto call = reinterpret_cast<const PelluxCall *(*)(int)>(dlsym(handle_, "pelluxCall"));
    std::vector<PelluxCall> all;
    for (int i = 0; i < count(); ++i) {
        all.push_back(*call(i));
    }
    return all;
}

}  // namespace xajms::test
