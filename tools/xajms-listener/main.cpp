// xajms-listener: parses the command line, listens, registers the row, prints "port=N" and
// serves until told to stop. The row is emptied on every way out that the process controls.
#include "options.h"
#include "registry_row.h"
#include "server.h"

#include <cstdio>
#include <exception>
#include <optional>

#include "common/shared_file.h"

namespace {

constexpr int kBadUsage = 2;
constexpr int kCannotServe = 1;

int runListener(const xajms::listener::Options &options) {
    using namespace xajms::listener;
    // Signals are blocked before the row exists, so that a SIGTERM can only arrive through
    // the loop, which empties the row on its way out.
    const Descriptor signals = terminationSignals();
    RequestLog log(options);
    int port = 0;
    const Descriptor listener = listenOn(options.port, port);
    std::optional<RegistryRow> row;
    if (options.registerRow) {
        const std::string warning =
            xajms::tools::sharedFileWarning(options.registry, "registering a listener in");
        if (!warning.empty()) {
            std::fprintf(stderr, "xajms-listener: %s\n", warning.c_str());
        }
        row.emplace(options.registry, options.mode, port, options.name);
    }
    std::printf("port=%d\n", port);
    std::fflush(stdout);
    return serve(options, listener, signals, log);
}

}  // namespace

int main(int argc, char **argv) {
    using namespace xajms::listener;
    Options options;
    try {
        options = parseOptions(argc - 1, argv + 1);
        if (!options.help) {
            checkRegistryDirectory(options);
        }
    } catch (const UsageError &e) {
        std::fprintf(stderr, "xajms-listener: %s\n", e.what());
        return kBadUsage;
    }
    if (options.help) {
        std::fwrite(helpText().data(), 1, helpText().size(), stdout);
        return 0;
    }
    try {
        return runListener(options);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "xajms-listener: %s\n", e.what());
        return kCannotServe;
    }
}
