// Loads the test companion library by its full path, as the broker would have loaded it, so
// that libxajms finds it already loaded under its bare name; and reads what it recorded.
#pragma once

#include <dlfcn.h>

#include <vector>

#include "support/fakes.h"
#include "support/pellux/pellux.h"

namespace xajms::test {

class Pellux {
  public:
    Pellux() : handle_(realDlopen(XAJMS_PELLUX_PATH, RTLD_NOW | RTLD_GLOBAL)) {
        if (handle_ != nullptr) {
            state_ = reinterpret_cast<PelluxState *(*)()>(dlsym(handle_, "pelluxState"))();
        }
    }
    ~Pellux() {
        if (handle_ != nullptr) {
            dlclose(handle_);
        }
    }
    Pellux(const Pellux &) = delete;
    Pellux &operator=(const Pellux &) = delete;

    bool loaded() const { return state_ != nullptr; }
    // Forgets the calls so far and sets what open, start and end return.
    void answer(int open, int start, int end) { *state_ = PelluxState{{open, start, end}, 0, {}}; }
    std::vector<PelluxCall> calls() const { return {state_->calls, state_->calls + state_->count}; }

  private:
    void *handle_;
    PelluxState *state_ = nullptr;
};

}  // namespace xajms::test
