// The registry file and the operations over its rows: attaching to files of every length
// and content, the refusal of a file that cannot be grown, the clearing of row 0, the scan
// bound of each lookup and mark, the marks' choice of row and pool clear, and trace lines.
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
#include <vector>

#include "registry/registry.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/trace_file.h"

namespace {

using xajms::registry::File;
using xajms::test::golden;
namespace registry = xajms::registry;

int portOf(int r) {
    return 7000 + r;
}

// Row r as an execution group would write it: port 7000 + r, a name that fills its field.
void setRow(File &file, int r, std::int32_t mode, pid_t pid = getpid()) {
    file.row[r] = registry::Row{pid, 7, portOf(r), mode, {}, {}};
    std::memset(file.row[r].ExGrp, 'g', registry::kNameSize);
}

// A signed registry with rows 0 to 2 filled.
std::unique_ptr<File> threeRows() {
    auto file = std::make_unique<File>();
    std::memcpy(file->header.signature, registry::kPath, sizeof registry::kPath);
    file->header.rowCount = 3;
    for (int r = 0; r < 3; ++r) {
        setRow(*file, r, registry::kModeBroker, 100 + r);
    }
    return file;
}

std::vector<char> bytesOf(const File &file, size_t length) {
    std::vector<char> bytes(length, 'z');
    std::memcpy(bytes.data(), &file, std::min(length, sizeof file));
    return bytes;
}

std::vector<char> readRegistry() {
    std::ifstream in(registry::kPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeRegistry(const std::vector<char> &bytes) {
    std::ofstream(registry::kPath, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<int> collect(int (*lookup)(void *, int *), File &file) {
    std::vector<int> ports(registry::kRows);
    ports.resize(static_cast<size_t>(lookup(&file, ports.data())));
    return ports;
}

// Every test runs in a private /var/orlom that holds no registry file at first.
class RegistryFile : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = xajms::test::enterPrivateOrlom();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        unlink(registry::kPath);
    }
};

// Lookup tests start from an attached, freshly formatted registry.
class Registry : public RegistryFile {
  protected:
    void SetUp() override {
        RegistryFile::SetUp();
        if (IsSkipped()) {
            return;
        }
        writeRegistry({});
        file = static_cast<File *>(GetSharedMemory_jms());
        ASSERT_NE(file, nullptr);
    }
    File *file = nullptr;
};

// Whatever the file holds, the attach leaves 76040 bytes that are either the file as it was
// (but for its last byte) or a freshly formatted registry; bytes past 76040 stay untouched.
TEST_F(RegistryFile, AttachAdoptsASignedFileAndFormatsAnyOther) {
    const auto signedFile = threeRows();
    auto damaged = threeRows();
    damaged->header.signature[sizeof registry::kPath - 1] = 'X';  // path without terminator
    File formatted{};
    std::memcpy(formatted.header.signature, registry::kPath, sizeof registry::kPath);
    const struct {
        const char *name;
        std::vector<char> content;
        bool formats;
    } cases[] = {
        {"empty", {}, true},
        {"short and unsigned", std::vector<char>(1000, 'q'), true},
        {"short and signed", bytesOf(*signedFile, 500), false},  // grown with zero bytes
        {"signed", bytesOf(*signedFile, sizeof(File)), false},
        {"signed and longer", bytesOf(*signedFile, sizeof(File) + 5000), false},
        {"damaged signature", bytesOf(*damaged, sizeof(File)), true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        writeRegistry(c.content);
        shared_stuff = nullptr;

        void *registryAddress = GetSharedMemory_jms();

        ASSERT_NE(registryAddress, nullptr);
        std::vector<char> want = c.content;
        want.resize(std::max(want.size(), sizeof(File)), 0);
        if (c.formats) {
            std::memcpy(want.data(), &formatted, sizeof formatted);
        }
        want[registry::kLastByte] = 0;
        EXPECT_EQ(readRegistry(), want);
        EXPECT_EQ(std::memcmp(registryAddress, want.data(), sizeof(File)), 0);
    }
}

TEST_F(RegistryFile, AttachTracesTheAdoptedRowCountAndIsCachedAfterwards) {
    writeRegistry(bytesOf(*threeRows(), sizeof(File)));
    xajms::test::freezeTraceColumns();
    xajms::test::TempDir dir;
    xajms::test::enableVarnelinkTrace(dir.path() + "/v");

    void *first = GetSharedMemory_jms();
    unlink(registry::kPath);
    EXPECT_EQ(GetSharedMemory_jms(), first);

    char at[40];
    std::snprintf(at, sizeof at, "%lx", reinterpret_cast<unsigned long>(first));
    const auto data = [](const std::string &text) {
        return golden(1, "  Varnelink GetSharedMemory_jms   " + text);
    };
    EXPECT_EQ(xajms::test::traceLines(dir.path() + "/v"),
              (std::vector<std::string>{
                  golden(1, "{ Varnelink GetSharedMemory_jms "),
                  data(" shared_stuff = 0"),
                  data("perform UNIX mmap()"),
                  data("Map shared structure to memory"),
                  data("Initialized shared memory successfully"),
                  data("Attached shared memory pre-allocated by different process at " +
                       std::string(at) + ", Number rows 3"),
                  golden(1, "} Varnelink GetSharedMemory_jms "),
                  golden(1, "{ Varnelink GetSharedMemory_jms "),
                  data(" shared_stuff = " + std::to_string(reinterpret_cast<long>(first))),
              }));
}

// A missing file fails at the open. A file that stays shorter than the mapping is never
// touched through it (that would raise SIGBUS): the attempt is refused and released. Every
// failed attach is tried again by the next call.
TEST_F(RegistryFile, FailedAttachesAreRetriedAndAShortFileIsRefused) {
    EXPECT_EQ(GetSharedMemory_jms(), nullptr);
    EXPECT_EQ(hMapFile_jms, -1);
    writeRegistry(std::vector<char>(100, 'q'));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 4096;
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
    EXPECT_EQ(readRegistry(), std::vector<char>(100, 'q'));
    EXPECT_EQ(freeAfter, freeBefore);
    EXPECT_NE(GetSharedMemory_jms(), nullptr);
    EXPECT_EQ(readRegistry().size(), sizeof(File));
}

// Only row 0 is ever cleared, and only while the row count is 1 or more.
TEST_F(RegistryFile, ClearEmptiesRowZeroAndTheRowCount) {
    const struct {
        std::int32_t rowCount;
        std::int32_t mode0;
        bool rowCleared;
        std::int32_t rowCountAfter;
    } cases[] = {{2, registry::kModeBroker, true, 0},
                 {1, registry::kModeEmpty, false, 0},
                 {0, registry::kModeBroker, false, 0},
                 {-1, registry::kModeBroker, false, -1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rowCount);
        auto before = threeRows();
        before->header.rowCount = c.rowCount;
        before->row[0].mode = c.mode0;
        writeRegistry(bytesOf(*before, sizeof(File)));
        shared_stuff = nullptr;

        EXPECT_EQ(ClearSharedMemory_jms(), 0);

        const auto *after = static_cast<const File *>(shared_stuff);
        ASSERT_NE(after, nullptr);
        const registry::Row &row0 = after->row[0];
        const registry::Row want0 =
            c.rowCleared ? registry::Row{0, 0, 0, 0, {}, {}} : before->row[0];
        EXPECT_EQ(after->header.rowCount, c.rowCountAfter);
        EXPECT_EQ(std::memcmp(&row0, &want0, offsetof(registry::Row, unused)), 0);
        EXPECT_EQ(std::memcmp(row0.ExGrp, c.rowCleared ? " " : "gg", 2), 0);
        EXPECT_EQ(std::memcmp(&after->row[1], &before->row[1], sizeof(registry::Row)), 0);
    }
}

// One operation of the eight: the mode that a row needs to be picked, and whether the scan
// takes row count + 1 rows (inclusive) or row count rows.
struct Operation {
    const char *name;
    std::int32_t mode;
    bool inclusive;
    bool (*sees)(File &file, int r);  // true when the operation picked row r
};

const Operation kOperations[] = {
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
    const struct {
        std::int32_t rowCount;
        int row;
        bool inclusiveSees;
        bool exclusiveSees;
    } cases[] = {
        {0, 0, true, false},     {2, 2, true, false},    {2, 1, true, true},
        {3, 4, false, false},    {-1, 0, false, false},  {INT_MIN, 0, false, false},
        {499, 499, true, false}, {500, 499, true, true}, {INT_MAX, 499, true, true},
    };
    for (const Operation &op : kOperations) {
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(op.name) + " row count " + std::to_string(c.rowCount) +
                         " match in row " + std::to_string(c.row));
            file->row = {};
            file->header.rowCount = c.rowCount;
            setRow(*file, c.row, op.mode);
            EXPECT_EQ(op.sees(*file, c.row), op.inclusive ? c.inclusiveSees : c.exclusiveSees);
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

// A process retires only its own start-up-recovery row.
TEST_F(Registry, RecoveryMarkTakesTheFirstRowOfTheCallingProcess) {
    file->header.rowCount = 2;
    setRow(*file, 0, registry::kModeStartUpRecovery, getpid() + 1);
    setRow(*file, 1, registry::kModeStartUpRecovery);
    setRow(*file, 2, registry::kModeStartUpRecovery);
    EXPECT_EQ(markRecoveryPortDead_jms(file), portOf(1));
    EXPECT_EQ(file->row[0].mode, registry::kModeStartUpRecovery);
    EXPECT_EQ(file->row[1].mode, registry::kModeDead);
    EXPECT_EQ(file->row[2].mode, registry::kModeStartUpRecovery);
}

// The pool drops the port's sockets whether or not a row held it, and only the first row
// that holds the port is marked; port 0 reaches neither the registry nor the pool.
TEST_F(Registry, BrokerMarkClearsThePoolForAnyPortButZero) {
    const struct {
        int port;
        int rowPort;
        bool marked;
        bool cleared;
    } cases[] = {{portOf(0), portOf(0), true, true},
                 {portOf(7), portOf(0), false, true},
                 {0, 0, false, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.port);
        const int port = c.port;
        for (int r : {0, 1}) {
            setRow(*file, r, registry::kModeBroker);
            file->row[r].port = c.rowPort;
        }
        processConnectionPool_jms.numPorts = 1;
        PortRow &pooled = processConnectionPool_jms.row[0];
        pooled = PortRow{port, 1, 0, {}};
        const int fd = open("/dev/null", O_RDONLY);
        pooled.slot[0] = SocketSlot{fd, 1};
        shared_stuff = nullptr;  // attached again by every mark that looks at the registry

        markBrokerPortDead_jms(port);

        EXPECT_EQ(shared_stuff != nullptr, c.cleared);
        EXPECT_EQ(file->row[0].mode, c.marked ? registry::kModeDead : registry::kModeBroker);
        EXPECT_EQ(file->row[1].mode, registry::kModeBroker);
        EXPECT_EQ(pooled.slot[0].sockfd, c.cleared ? 0 : fd);
        EXPECT_EQ(xajms::test::isOpen(fd), !c.cleared);
        close(fd);
    }
}

TEST_F(Registry, TraceLinesOfTheLookups) {
    xajms::test::freezeTraceColumns();
    xajms::test::TempDir dir;
    xajms::test::enableSocketTrace(dir.path() + "/s");
    file->header.rowCount = 0;
    setRow(*file, 0, registry::kModeBroker);
    std::memcpy(file->row[0].ExGrp, "EG1", 4);

    CheckForBroker_jms(file);
    GetPendingPort_jms(nullptr, nullptr);
    file->header.rowCount = 1;
    file->row[0].mode = registry::kModeStartUpRecovery;
    std::memset(file->row[0].ExGrp, 'g', registry::kNameSize);
    GetStartUpRecoveryPort_jms(file);
    CheckForPendingSlot_jms();
    markRecoveryPortDead_jms(nullptr);

    const std::string name(registry::kNameSize, 'g');
    EXPECT_EQ(
        xajms::test::traceLines(dir.path() + "/s"),
        (std::vector<std::string>{
            golden(1, "{ XASocket CheckForBroker_jms "),
            golden(1, "  XASocket CheckForBroker    Number of socket rows=0"),
            golden(1, "  XASocket CheckForBroker_jms    ExecutionGroup=EG1 port=7000"),
            golden(1, "} XASocket GetPendingPort_jms    obtained array of 0 ports "),
            golden(1, "{ XASocket GetStartUpRecoveryPort "),
            golden(1, "} XASocket GetStartUpRecoveryPort    ExecutionGroup=" + name + " port=7000"),
            golden(1, "{ XASocket CheckForPendingSlot "),
            golden(1, "} XASocket CheckForPendingSlot - No Pending Port "),
            golden(0, "} XASocket markRecoveryPortDead   Recovery Port Not found"),
        }));
}

}  // namespace
