// Registry file contents of any length, attached afresh for each input, then every look-up
// and mark and the clearing of row 0, which must all stay inside the mapping.
#include <sys/mman.h>

#include "common.h"
#include "registry/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    xajms::fuzz::reset();
    if (shared_stuff != nullptr) {  // forget the last input's mapping
        munmap(shared_stuff, xajms::registry::kFileSize);
        close(hMapFile_jms);
        shared_stuff = nullptr;
    }
    xajms::test::writeRegistryBytes({data, size});
    void *registry = GetSharedMemory_jms();
    int ports[500];
    const int brokers = GetBrokerPorts_jms(registry, ports);
    const int pending = GetPendingPort_jms(registry, ports);
    xajms::fuzz::check(brokers >= 0 && brokers <= 500 && pending >= 0 && pending <= brokers,
                       "a look-up counts more ports than rows");
    const int broker = CheckForBroker_jms(registry);
    GetStartUpRecoveryPort_jms(registry);
    CheckForPendingSlot_jms();
    CheckForStartUpRecovery_jms();
    markRecoveryPortDead_jms(registry);
    markBrokerPortDead_jms(broker);
    markBrokerPortDead_jms(pending > 0 ? ports[0] : 0);  // port 0 marks nothing
    ClearSharedMemory_jms();
    return 0;
}
