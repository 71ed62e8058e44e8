// The process's switch mode: exact or hardened, fixed by the first start function called and
// read by the pool and the listener protocol wherever the two modes part.
#include "pool/pool.h"

#include <atomic>

namespace {

std::atomic<int> fixedMode{static_cast<int>(xajms::pool::Mode::kUnset)};

}  // namespace

namespace xajms::pool {

Mode fixMode(Mode wanted) {
    int unset = static_cast<int>(Mode::kUnset);
    fixedMode.compare_exchange_strong(unset, static_cast<int>(wanted));
    return static_cast<Mode>(fixedMode.load());
}

bool hardened() {
    return fixedMode.load(std::memory_order_relaxed) == static_cast<int>(Mode::kHardened);
}

}  // namespace xajms::pool
