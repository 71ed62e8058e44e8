// Registry file contents of any length, attached afresh for each input, then every look-up
// and mark over the rows and the clearing of row 0. All of them must stay inside the
// mapping, whatever row count and rows the file holds.
#include <sys/mman.h>

#include "common.h"
#include "registry/registry.h"

namespace fuzz = xajms::fuzz;

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::enterPrivateOrlom();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::discardTrace();
    if (shared_stuff != nullptr) {  // forget the last input's mapping: the three globals as at load
        munmap(shared_stuff, xajms::registry::kFileSize);
        close(hMapFile_jms);
    }
    shared_stuff = nullptr;
    shared_memory_loc = nullptr;
    hMapFile_jms = 0;
    xajms::test::writeRegistryBytes({data, size});
    void *registry = GetSharedMemory_jms();
    int ports[500];
    const int brokers = GetBrokerPorts_jms(registry, ports);
    const int pending = GetPendingPort_jms(registry, ports);
    if (brokers < 0 || brokers > 500 || pending < 0 || pending > brokers) {
        fuzz::fail("a look-up counts more ports than rows");
    }
    const int broker = CheckForBroker_jms(registry);
    GetStartUpRecoveryPort_jms(registry);
    CheckForPendingSlot_jms();
    CheckForStartUpRecovery_jms();
    markRecoveryPortDead_jms(registry);
    markBrokerPortDead_jms(broker);
    if (pending > 0) {
        markBrokerPortDead_jms(ports[0]);
    }
    ClearSharedMemory_jms();
    fuzz::emptyPool();
    return 0;
}
