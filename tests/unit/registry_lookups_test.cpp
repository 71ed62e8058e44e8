// The lookups and marks over the registry rows: the scan bound of each, their results in
// row order, the marks' choice of row and the pool clear, and their trace lines.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "registry/registry.h"
#include "support/fakes.h"
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

void setRow(File &file, int r, std::int32_t mode, pid_t pid = getpid()) {
    file.row[r] = registry::Row{pid, 0, portOf(r), mode, {}, {}};
    std::memset(file.row[r].ExGrp, 'g', registry::kNameSize);  // no terminator
}

std::vector<int> collect(int (*lookup)(void *, int *), File &file) {
    std::vector<int> ports(registry::kRows);
    ports.resize(static_cast<size_t>(lookup(&file, ports.data())));
    return ports;
}

class Registry : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = xajms::test::enterPrivateOrlom();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        close(open(registry::kPath, O_RDWR | O_CREAT | O_TRUNC, 0600));
        file = static_cast<File *>(GetSharedMemory_jms());
        ASSERT_NE(file, nullptr);
    }
    File *file = nullptr;
};

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
    for (const std::int32_t mode : {registry::kModeBroker, registry::kModePending}) {
        for (int r = 0; r < registry::kRows; ++r) {
            setRow(*heap, r, mode);
        }
        std::vector<int> all(registry::kRows);
        for (int r = 0; r < registry::kRows; ++r) {
            all[static_cast<size_t>(r)] = portOf(r);
        }
        EXPECT_EQ(collect(GetBrokerPorts_jms, *heap), all);
        EXPECT_EQ(collect(GetPendingPort_jms, *heap).size(),
                  mode == registry::kModePending ? all.size() : 0u);
        EXPECT_EQ(GetBrokerPorts_jms(heap.get(), nullptr), 0);
    }
    heap->row = {};
    EXPECT_EQ(CheckForBroker_jms(heap.get()), 0);
    EXPECT_EQ(GetStartUpRecoveryPort_jms(heap.get()), 0);
    EXPECT_EQ(markRecoveryPortDead_jms(heap.get()), 0);
}

TEST_F(Registry, ArraysKeepRowOrderAndDuplicatesWhileMarksTakeOnlyTheFirstRow) {
    file->header.rowCount = 2;
    setRow(*file, 0, registry::kModeBroker);
    setRow(*file, 1, registry::kModePending);
    setRow(*file, 2, registry::kModeBroker);
    file->row[2].port = portOf(0);
    EXPECT_EQ(collect(GetBrokerPorts_jms, *file), (std::vector{portOf(0), portOf(1), portOf(0)}));
    EXPECT_EQ(collect(GetPendingPort_jms, *file), std::vector{portOf(1)});

    markBrokerPortDead_jms(portOf(0));
    EXPECT_EQ(file->row[0].mode, registry::kModeDead);
    EXPECT_EQ(file->row[2].mode, registry::kModeBroker);

    setRow(*file, 0, registry::kModeStartUpRecovery, getpid() + 1);
    setRow(*file, 1, registry::kModeStartUpRecovery);
    setRow(*file, 2, registry::kModeStartUpRecovery);
    EXPECT_EQ(markRecoveryPortDead_jms(file), portOf(1));
    const std::int32_t after[] = {file->row[0].mode, file->row[1].mode, file->row[2].mode};
    EXPECT_EQ(std::vector(std::begin(after), std::end(after)),
              (std::vector{registry::kModeStartUpRecovery, registry::kModeDead,
                           registry::kModeStartUpRecovery}));
}

// The pool drops the port's sockets whether or not a row held it; port 0 reaches neither.
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
        setRow(*file, 0, registry::kModeBroker);
        file->row[0].port = c.rowPort;
        processConnectionPool_jms.numPorts = 1;
        PortRow &pooled = processConnectionPool_jms.row[0];
        pooled = PortRow{port, 1, 0, {}};
        const int fd = open("/dev/null", O_RDONLY);
        pooled.slot[0] = SocketSlot{fd, 1};
        shared_stuff = nullptr;  // attached again by every mark that looks at the registry

        markBrokerPortDead_jms(port);

        EXPECT_EQ(shared_stuff != nullptr, c.cleared);
        EXPECT_EQ(file->row[0].mode, c.marked ? registry::kModeDead : registry::kModeBroker);
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
