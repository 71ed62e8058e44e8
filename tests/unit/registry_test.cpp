// The registry file: the attach, its refusal of a file that cannot be grown, and the scan
// bound of each lookup and mark.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "registry/registry.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"

namespace {

using xajms::registry::File;
namespace registry = xajms::registry;
using namespace xajms::test;

const auto portOf = [](int r) { return 7000 + r; };
const auto dead = [](const File &f, int r) { return f.row[r].mode == registry::kModeDead; };

// Row r as this process's execution group writes it: port 7000 + r, an unterminated name.
void setRow(File &file, int r, std::int32_t mode) {
    file.row[r] = registry::Row{getpid(), 7, portOf(r), mode, {}, {}};
    std::memset(file.row[r].ExGrp, 'g', registry::kNameSize);
}

// `length` bytes of 'z' that start with the first `signature` bytes of the signature.
Bytes signedFile(size_t length, size_t signature = sizeof registry::kPath) {
    Bytes bytes(length, 'z');
    std::memcpy(bytes.data(), registry::kPath, signature);
    return bytes;
}

Bytes readRegistry() {
    std::ifstream in(registry::kPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<int> collect(int (*lookup)(void *, int *), File &file) {
    std::vector<int> ports(registry::kRows);
    ports.resize(static_cast<size_t>(lookup(&file, ports.data())));
    return ports;
}

// Every test runs in a private /var/orlom. The lookups and marks see `file` as the attached
// registry: exactly 76040 heap bytes, so that the sanitizer sees any access past row 499.
class Registry : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const std::string why = enterPrivateOrlom(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        shared_stuff = file.get();
    }
    std::unique_ptr<File> file = std::make_unique<File>();
};

// Whatever the file holds, the attach leaves 76040 bytes that are either the file as it was
// (but for its last byte) or a freshly formatted registry; bytes past 76040 stay untouched.
TEST_F(Registry, AttachAdoptsASignedFileAndFormatsAnyOther) {
    const std::tuple<const char *, Bytes, bool> cases[] = {
        {"short and unsigned", Bytes(1000, 'q'), true},
        {"signed and longer", signedFile(sizeof(File) + 5000), false},
        {"path without terminator", signedFile(sizeof(File), sizeof registry::kPath - 1), true},
    };
    for (const auto &[name, content, formats] : cases) {
        SCOPED_TRACE(name);
        writeRegistryBytes(content);
        shared_stuff = nullptr;

        ASSERT_NE(GetSharedMemory_jms(), nullptr);
        Bytes want = content;
        want.resize(std::max(want.size(), sizeof(File)), 0);
        std::fill_n(want.begin(), formats ? sizeof(File) : 0, 0);
        std::memcpy(want.data(), registry::kPath, sizeof registry::kPath);  // signed either way
        want[registry::kLastByte] = 0;
        EXPECT_EQ(readRegistry(), want);  // the mapping's bytes, as the mapping is shared
    }
}

// A file that cannot be grown to the mapping's length is never touched through it (that
// would raise SIGBUS): the attempt is refused and released, and the next call tries again.
TEST_F(Registry, FailedAttachesAreRetriedAndAShortFileIsRefused) {
    writeRegistryBytes(Bytes(100, 'q'));
    shared_stuff = nullptr;
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    const rlimit small{4096, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int lowestFree = dup(0);
    close(lowestFree);

    EXPECT_EQ(GetSharedMemory_jms(), nullptr);

    EXPECT_FALSE(isOpen(lowestFree));  // the refused attempt gave its descriptor back
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(hMapFile_jms, -1);
    EXPECT_EQ(shared_memory_loc, MAP_FAILED);
    EXPECT_EQ(readRegistry(), Bytes(100, 'q'));
    EXPECT_NE(GetSharedMemory_jms(), nullptr);
    EXPECT_EQ(readRegistry().size(), sizeof(File));
}

// The eight operations: the mode that a row needs to be picked, whether the scan takes row
// count + 1 rows (inclusive) or row count rows, and whether it picked row r.
const std::tuple<const char *, std::int32_t, bool, bool (*)(File &, int)> kOperations[] = {
    {"GetBrokerPorts_jms", registry::kModeBroker, true,
     [](File &f, int r) { return collect(GetBrokerPorts_jms, f) == std::vector{portOf(r)}; }},
    {"CheckForBroker_jms", registry::kModeBroker, true,
     [](File &f, int r) { return CheckForBroker_jms(&f) == portOf(r); }},
    {"GetPendingPort_jms", registry::kModePending, true,
     [](File &f, int r) { return collect(GetPendingPort_jms, f) == std::vector{portOf(r)}; }},
    {"markRecoveryPortDead_jms", registry::kModeStartUpRecovery, true,
     [](File &f, int r) { return markRecoveryPortDead_jms(&f) == portOf(r) && dead(f, r); }},
    {"markBrokerPortDead_jms", registry::kModeBroker, true,
     [](File &f, int r) {
         markBrokerPortDead_jms(portOf(r));
         return dead(f, r);
     }},
    {"GetStartUpRecoveryPort_jms", registry::kModeStartUpRecovery, false,
     [](File &f, int r) { return GetStartUpRecoveryPort_jms(&f) == portOf(r); }},
    {"CheckForPendingSlot_jms", registry::kModePending, false,
     [](File &, int r) { return CheckForPendingSlot_jms() == portOf(r); }},
    {"CheckForStartUpRecovery_jms", registry::kModeStartUpRecovery, false,
     [](File &, int r) { return CheckForStartUpRecovery_jms() == portOf(r); }},
};

TEST_F(Registry, EachOperationScansTheRowsOfItsOwnBound) {
    // row count, the matching row, whether inclusive and exclusive scans see it
    const std::tuple<std::int32_t, int, bool, bool> cases[] = {
        {0, 0, true, false},          {1, 0, true, true},      {3, 4, false, false},
        {-1, 0, false, false},        {499, 499, true, false}, {500, 499, true, true},
        {0x7fffffff, 499, true, true}};
    for (const auto &[name, mode, inclusive, sees] : kOperations) {
        for (const auto &[rowCount, row, inclusiveSees, exclusiveSees] : cases) {
            SCOPED_TRACE(testing::Message() << name << " row count " << rowCount << " row " << row);
            file->row = {};
            file->header.rowCount = rowCount;
            setRow(*file, row, mode);
            EXPECT_EQ(sees(*file, row), inclusive ? inclusiveSees : exclusiveSees);
        }
    }
}

// 500 matching rows fill a 500-entry array; unterminated names are traced within their field.
TEST_F(Registry, ScansAndArraysStayInsideTheFileWhateverTheRowCount) {
    enableSocketTrace("/var/orlom/trace.");
    file->header.rowCount = 0x7fffffff;
    std::vector<int> all;
    for (int r = 0; r < registry::kRows; ++r) {
        setRow(*file, r, registry::kModePending);
        all.push_back(portOf(r));
    }
    EXPECT_EQ(collect(GetBrokerPorts_jms, *file), all);
    EXPECT_EQ(collect(GetPendingPort_jms, *file), all);
    EXPECT_EQ(GetPendingPort_jms(file.get(), nullptr), 0);
    file->row[0].mode = registry::kModeBroker;  // a broker port, but no pending one
    EXPECT_EQ(collect(GetPendingPort_jms, *file).size(), 499u);
    file->row = {};  // no row matches: each scan goes to its last row
    for (const auto &[name, mode, inclusive, sees] : kOperations) {
        EXPECT_FALSE(sees(*file, 0)) << name;
    }
}

}  // namespace
