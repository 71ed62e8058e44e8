// The registry file: attaching to files of every length and content, the refusal of a file
// that cannot be grown, the clearing of row 0, the scan bound of each lookup and mark, the
// marks' choice of row and pool clear, and the lookups' trace lines.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
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
#include "support/trace_file.h"

namespace {

using xajms::registry::File;
namespace registry = xajms::registry;
using xajms::test::Bytes;
using xajms::test::writeRegistryBytes;

int portOf(int r) {
    return 7000 + r;
}

// Row r as an execution group would write it: port 7000 + r, a name that fills its field.
void setRow(File &file, int r, std::int32_t mode, pid_t pid = getpid()) {
    file.row[r] = registry::Row{pid, 7, portOf(r), mode, {}, {}};
    std::memset(file.row[r].ExGrp, 'g', registry::kNameSize);
}

// The first `length` bytes of a signed registry with rows 0 to 2 filled, 'z' past its end.
Bytes threeRows(size_t length = sizeof(File), std::int32_t rowCount = 3) {
    File file{};
    std::memcpy(file.header.signature, registry::kPath, sizeof registry::kPath);
    file.header.rowCount = rowCount;
    for (int r = 0; r < 3; ++r) {
        setRow(file, r, registry::kModeBroker, 100 + r);
    }
    Bytes bytes(length, 'z');
    std::memcpy(bytes.data(), &file, std::min(length, sizeof file));
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

// Every test runs in a private /var/orlom; `file` is the attached, freshly formatted registry.
class Registry : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const std::string why = xajms::test::enterPrivateOrlom(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        writeRegistryBytes({});
        file = static_cast<File *>(GetSharedMemory_jms());
        ASSERT_NE(file, nullptr);
        shared_stuff = nullptr;
    }
    File *file = nullptr;
};

// Whatever the file holds, the attach leaves 76040 bytes that are either the file as it was
// (but for its last byte) or a freshly formatted registry; bytes past 76040 stay untouched.
TEST_F(Registry, AttachAdoptsASignedFileAndFormatsAnyOther) {
    Bytes damaged = threeRows();
    damaged[sizeof registry::kPath - 1] = 'X';  // the path without its terminator
    const std::tuple<const char *, Bytes, bool> cases[] = {
        {"empty", {}, true},
        {"short and unsigned", Bytes(1000, 'q'), true},
        {"short and signed", threeRows(500), false},  // grown with zero bytes
        {"signed", threeRows(), false},
        {"signed and longer", threeRows(sizeof(File) + 5000), false},
        {"damaged signature", damaged, true},
    };
    for (const auto &[name, content, formats] : cases) {
        SCOPED_TRACE(name);
        writeRegistryBytes(content);
        shared_stuff = nullptr;

        void *registryAddress = GetSharedMemory_jms();

        ASSERT_NE(registryAddress, nullptr);
        Bytes want = content;
        want.resize(std::max(want.size(), sizeof(File)), 0);
        if (formats) {
            std::fill_n(want.begin(), sizeof(File), 0);
            std::memcpy(want.data(), registry::kPath, sizeof registry::kPath);
        }
        want[registry::kLastByte] = 0;
        EXPECT_EQ(readRegistry(), want);
        EXPECT_EQ(std::memcmp(registryAddress, want.data(), sizeof(File)), 0);
    }
}

// A file that cannot be grown to the mapping's length is never touched through it (that
// would raise SIGBUS): the attempt is refused and released, and the next call tries again.
TEST_F(Registry, FailedAttachesAreRetriedAndAShortFileIsRefused) {
    writeRegistryBytes(Bytes(100, 'q'));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    const rlimit small{4096, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int freeBefore = dup(0);
    close(freeBefore);

    void *refused = GetSharedMemory_jms();

    const int freeAfter = dup(0);  // the refused attempt gave its descriptor back
    close(freeAfter);
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(shared_stuff, nullptr);
    EXPECT_EQ(hMapFile_jms, -1);
    EXPECT_EQ(shared_memory_loc, MAP_FAILED);
    EXPECT_EQ(readRegistry(), Bytes(100, 'q'));
    EXPECT_EQ(freeAfter, freeBefore);
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
     [](File &f, int r) {
         return markRecoveryPortDead_jms(&f) == portOf(r) && f.row[r].mode == registry::kModeDead;
     }},
    {"markBrokerPortDead_jms", registry::kModeBroker, true,
     [](File &f, int r) {
         markBrokerPortDead_jms(portOf(r));
         return f.row[r].mode == registry::kModeDead;
     }},
    {"GetStartUpRecoveryPort_jms", registry::kModeStartUpRecovery, false,
     [](File &f, int r) { return GetStartUpRecoveryPort_jms(&f) == portOf(r); }},
    {"CheckForPendingSlot_jms", registry::kModePending, false,
     [](File &, int r) { return CheckForPendingSlot_jms() == portOf(r); }},
    {"CheckForStartUpRecovery_jms", registry::kModeStartUpRecovery, false,
     [](File &, int r) { return CheckForStartUpRecovery_jms() == portOf(r); }},
};

// Each operation keeps its own bound; no row count takes a scan past row 499.
TEST_F(Registry, EachOperationScansTheRowsOfItsOwnBound) {
    // row count, the matching row, whether inclusive and exclusive scans see it
    const std::tuple<std::int32_t, int, bool, bool> cases[] = {
        {0, 0, true, false},     {2, 2, true, false},    {2, 1, true, true},
        {3, 4, false, false},    {-1, 0, false, false},  {INT_MIN, 0, false, false},
        {499, 499, true, false}, {500, 499, true, true}, {INT_MAX, 499, true, true},
    };
    for (const auto &[name, mode, inclusive, sees] : kOperations) {
        for (const auto &[rowCount, row, inclusiveSees, exclusiveSees] : cases) {
            SCOPED_TRACE(std::string(name) + " row count " + std::to_string(rowCount) +
                         " match in row " + std::to_string(row));
            file->row = {};
            file->header.rowCount = rowCount;
            setRow(*file, row, mode);
            EXPECT_EQ(sees(*file, row), inclusive ? inclusiveSees : exclusiveSees);
        }
    }
}

// On a registry of exactly 76040 heap bytes the sanitizer sees any access past row 499, and
// a 500-entry array any store past its end; names without terminator are printed too.
TEST_F(Registry, ScansAndArraysStayInsideTheFileWhateverTheRowCount) {
    xajms::test::TempDir dir;
    xajms::test::enableSocketTrace(dir.path() + "/s");
    auto heap = std::make_unique<File>();
    heap->header.rowCount = INT_MAX;
    std::vector<int> all;
    for (int r = 0; r < registry::kRows; ++r) {
        all.push_back(portOf(r));
    }
    for (const std::int32_t mode : {registry::kModeBroker, registry::kModePending}) {
        for (int r = 0; r < registry::kRows; ++r) {
            setRow(*heap, r, mode);
        }
        EXPECT_EQ(collect(GetBrokerPorts_jms, *heap), all);
        EXPECT_EQ(collect(GetPendingPort_jms, *heap).size(),
                  mode == registry::kModePending ? 500u : 0u);
        EXPECT_EQ(GetPendingPort_jms(heap.get(), nullptr), 0);
    }
    heap->row = {};
    EXPECT_EQ(CheckForBroker_jms(heap.get()), 0);
    EXPECT_EQ(GetStartUpRecoveryPort_jms(heap.get()), 0);
    EXPECT_EQ(markRecoveryPortDead_jms(heap.get()), 0);
}

}  // namespace
