// The registry file: attaching to files of every length and content, the refusal of a file
// that cannot be grown, and the clearing of row 0.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "registry/registry.h"
#include "support/orlom.h"
#include "support/trace_file.h"

namespace {

using xajms::registry::File;
using xajms::test::golden;
namespace registry = xajms::registry;

// A signed registry whose rows 0 to 2 are filled, as an execution group would leave it.
std::unique_ptr<File> threeRows() {
    auto file = std::make_unique<File>();
    std::memcpy(file->header.signature, registry::kPath, sizeof registry::kPath);
    file->header.rowCount = 3;
    for (int r = 0; r < 3; ++r) {
        file->row[r] = registry::Row{100 + r, 7, 9000 + r, registry::kModeBroker, {}, {}};
        std::memset(file->row[r].ExGrp, 'a' + r, registry::kNameSize);
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
    iIndent = 0;

    void *first = GetSharedMemory_jms();
    unlink(registry::kPath);
    void *second = GetSharedMemory_jms();

    ASSERT_NE(first, nullptr);
    EXPECT_EQ(second, first);
    char address[64];
    std::snprintf(address, sizeof address, "%lx, Number rows 3",
                  reinterpret_cast<unsigned long>(first));
    const std::string at = std::to_string(reinterpret_cast<long>(first));
    EXPECT_EQ(xajms::test::traceLines(dir.path() + "/v"),
              (std::vector<std::string>{
                  golden(1, "{ Varnelink GetSharedMemory_jms "),
                  golden(1, "  Varnelink GetSharedMemory_jms    shared_stuff = 0"),
                  golden(1, "  Varnelink GetSharedMemory_jms   perform UNIX mmap()"),
                  golden(1, "  Varnelink GetSharedMemory_jms   Map shared structure to memory"),
                  golden(1,
                         "  Varnelink GetSharedMemory_jms   Initialized shared memory "
                         "successfully"),
                  golden(1,
                         "  Varnelink GetSharedMemory_jms   Attached shared memory "
                         "pre-allocated by different process at " +
                             std::string(address)),
                  golden(1, "} Varnelink GetSharedMemory_jms "),
                  golden(1, "{ Varnelink GetSharedMemory_jms "),
                  golden(1, "  Varnelink GetSharedMemory_jms    shared_stuff = " + at),
              }));
}

TEST_F(RegistryFile, MissingFileFailsOnEveryCallUntilItExists) {
    EXPECT_EQ(GetSharedMemory_jms(), nullptr);
    EXPECT_EQ(hMapFile_jms, -1);
    EXPECT_EQ(GetSharedMemory_jms(), nullptr);
    writeRegistry({});
    EXPECT_NE(GetSharedMemory_jms(), nullptr);
    EXPECT_GT(hMapFile_jms, 0);
}

// A file that stays shorter than the mapping is never touched through it: that would raise
// SIGBUS. The attempt is refused and released, and the next call tries again.
TEST_F(RegistryFile, FileThatCannotGrowIsRefused) {
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
    } cases[] = {
        {2, registry::kModeBroker, true, 0},
        {1, registry::kModeEmpty, false, 0},
        {0, registry::kModeBroker, false, 0},
        {-1, registry::kModeBroker, false, -1},
    };
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
        EXPECT_EQ(std::memcmp(row0.ExGrp, c.rowCleared ? " " : "aaa", 2), 0);
        EXPECT_EQ(std::memcmp(&after->row[1], &before->row[1], sizeof(registry::Row)), 0);
    }
}

}  // namespace
