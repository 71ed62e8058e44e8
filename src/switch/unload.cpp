// What the library gives back when it is unloaded (or the process ends): the pooled sockets,
// the pool lock, the registry mapping and its descriptor, and an open table that no last
// close freed. A loaded library never runs this, so nothing it does changes.
#include "switch/switch.h"

#include "pool/pool.h"
#include "registry/registry.h"

namespace {

// Runs when the loader unmaps the library. When a thread is still inside a request, the
// registry and the sockets stay as they are: an unmapped registry under a thread that is
// scanning it would crash the host, and a leak is the lesser harm.
__attribute__((destructor)) void releaseOnUnload() {
    if (!xajms::pool::releaseAll()) {
        return;
    }
    xajms::registry::detach();
    xajms::switch_::freeOpenTableIfIdle();
}

}  // namespace
