// xajms-registry as a user runs it: refused command lines, files that are no registry, the
// table and JSON of a crafted registry file (names without terminator, odd modes and pids,
// rows beyond the row count, row counts out of range), and --clear on the fixed path inside
// a private /var/orlom.
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "registry/registry.h"
#include "support/orlom.h"
#include "support/tool_run.h"
#include "support/trace_file.h"

namespace {

using xajms::registry::File;
using xajms::test::lines;
using xajms::test::TempDir;
using xajms::test::ToolRun;
using Args = std::vector<std::string>;
namespace registry = xajms::registry;

#define SKIP_WITHOUT_TOOL()                                         \
    if (xajms::test::registryToolPath().empty()) {                  \
        GTEST_SKIP() << "xajms-registry is not part of this build"; \
    }

ToolRun runRegistry(const Args &args) {
    return xajms::test::runTool(xajms::test::registryToolPath(), args);
}

std::unique_ptr<File> formatted(std::int32_t rowCount) {
    auto file = std::make_unique<File>();
    std::memset(file.get(), 0, sizeof *file);
    std::memcpy(file->header.signature, registry::kPath, registry::kSignatureLength);
    file->header.rowCount = rowCount;
    return file;
}

void setRow(File &file, int index, std::int32_t pid, std::int32_t port, std::int32_t mode,
            const std::string &name) {
    registry::Row &row = file.row[static_cast<std::size_t>(index)];
    row.pid = pid;
    row.port = port;
    row.mode = mode;
    std::memcpy(row.ExGrp, name.data(), std::min(name.size(), sizeof row.ExGrp));
}

void writeBytes(const std::string &path, const void *data, std::size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(static_cast<const char *>(data), static_cast<std::streamsize>(size));
}

std::string readBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The pid of a process that has ended and been reaped.
pid_t endedPid() {
    pid_t pid = -1;
    char *argv[] = {const_cast<char *>("/bin/true"), nullptr};
    if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, nullptr) != 0) {
        return -1;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return pid;
}

TEST(RegistryTool, RefusedCommandLinesExitTwoWithOneLine) {
    SKIP_WITHOUT_TOOL();
    const std::vector<Args> cases = {{"--bogus"},
                                     {"rows"},
                                     {"--file"},
                                     {"--file="},
                                     {"--clear", "--json"},
                                     {"--clear", "--file", "/tmp/x"}};
    for (const Args &args : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const ToolRun run = runRegistry(args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(lines(run.err).size(), 1u) << run.err;
    }
    const ToolRun help = runRegistry({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: xajms-registry", 0), 0u);
}

TEST(RegistryTool, AFileThatIsNoRegistryGetsOneLineAndStatusOne) {
    SKIP_WITHOUT_TOOL();
    TempDir dir;
    const std::string d = dir.path();
    writeBytes(d + "/empty", "", 0);
    const std::string some(1000, 'x');
    writeBytes(d + "/short", some.data(), some.size());
    std::unique_ptr<File> file = formatted(1);
    file->header.signature[5] = 'X';
    writeBytes(d + "/unsigned", file.get(), sizeof *file);
    mkdir((d + "/dir").c_str(), 0700);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"absent", "cannot open the registry file: No such file or directory"},
        {"empty", "not a formatted registry file (0 of 76040 bytes)"},
        {"short", "not a formatted registry file (1000 of 76040 bytes)"},
        {"unsigned", "not a formatted registry file (no signature)"},
        {"dir", "not a regular file"},
    };
    for (const auto &[name, reason] : cases) {
        SCOPED_TRACE(name);
        const ToolRun run = runRegistry({"--file", d + "/" + name});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "xajms-registry: " + d + "/" + name + ": " + reason + "\n");
    }
}

TEST(RegistryTool, ShowsCountedRowsAndRowsInUseBeyondTheCount) {
    SKIP_WITHOUT_TOOL();
    const pid_t ended = endedPid();
    ASSERT_GT(ended, 0);
    TempDir dir;
    const std::string path = dir.path() + "/mmf";
    std::unique_ptr<File> file = formatted(4);
    setRow(*file, 0, getpid(), 40001, registry::kModeBroker, "EG1");
    setRow(*file, 1, ended, 40002, registry::kModePending, "a\\b\x01");
    setRow(*file, 3, -1, 40003, 7, std::string(128, 'N'));
    setRow(*file, 9, 0, 40009, registry::kModeStartUpRecovery, "late");
    writeBytes(path, file.get(), sizeof *file);

    const ToolRun run = runRegistry({"--file", path});
    EXPECT_EQ(run.status, 0) << run.err;
    const std::string me = std::to_string(getpid());
    const std::string gone = std::to_string(ended);
    const std::string n128(128, 'N');
    // Columns are as wide as their widest cell, two blanks apart.
    const std::size_t pidWidth = std::max({std::size_t{3}, me.size(), gone.size()});
    const auto row = [pidWidth](const std::string &index, const std::string &name,
                                const std::string &port, const std::string &pid,
                                const std::string &rest) {
        return index + std::string(5 - index.size(), ' ') + name +
               std::string(130 - name.size(), ' ') + port + std::string(7 - port.size(), ' ') +
               pid + std::string(pidWidth + 2 - pid.size(), ' ') + rest;
    };
    const std::vector<std::string> want = {
        path + ": row count 4",
        row("row", "execution group", "port", "pid", "alive  mode"),
        row("0", "EG1", "40001", me, "yes    broker"),
        row("1", "a\\x5cb\\x01", "40002", gone, "no     pending"),
        row("2", "", "0", "0", "-      empty"),
        row("3", n128, "40003", "-1", "-      unknown (7)"),
        row("9", "late", "40009", "0", "-      start-up recovery *"),
        "* at or beyond the row count: in use, but not counted",
    };
    EXPECT_EQ(lines(run.out), want);

    const ToolRun js = runRegistry({"--json", "--file", path});
    EXPECT_EQ(js.status, 0);
    const std::string at = R"({"row":)";
    EXPECT_EQ(js.out, R"({"file":")" + path + R"(","rowCount":4,"rowCountInRange":true,"rows":[)" +
                          at + R"(0,"name":"EG1","port":40001,"pid":)" + me +
                          R"(,"alive":true,"mode":"broker","modeValue":2,"counted":true},)" + at +
                          R"(1,"name":"a\\b\u0001","port":40002,"pid":)" + gone +
                          R"(,"alive":false,"mode":"pending","modeValue":4,"counted":true},)" + at +
                          R"(2,"name":"","port":0,"pid":0,"alive":null,"mode":"empty",)" +
                          R"("modeValue":0,"counted":true},)" + at + R"(3,"name":")" + n128 +
                          R"(","port":40003,"pid":-1,"alive":null,"mode":"unknown",)" +
                          R"("modeValue":7,"counted":true},)" + at +
                          R"(9,"name":"late","port":40009,"pid":0,"alive":null,)" +
                          R"("mode":"start-up recovery","modeValue":1,"counted":false}]})" + "\n");
}

TEST(RegistryTool, ARowCountOutsideTheFileIsShownAndBounded) {
    SKIP_WITHOUT_TOOL();
    struct Case {
        std::int32_t rowCount;
        std::string header;
        std::size_t rowLines;
    };
    const std::vector<Case> cases = {
        {-5, ": row count -5 (outside 0..500)", 1},
        {0, ": row count 0", 1},
        {500, ": row count 500", 500},
        {9999, ": row count 9999 (outside 0..500)", 500},
    };
    TempDir dir;
    const std::string path = dir.path() + "/mmf";
    for (const Case &c : cases) {
        SCOPED_TRACE(c.rowCount);
        std::unique_ptr<File> file = formatted(c.rowCount);
        setRow(*file, 499, 0, 40499, registry::kModeBroker, "last");
        writeBytes(path, file.get(), sizeof *file);
        const ToolRun run = runRegistry({"--file", path});
        EXPECT_EQ(run.status, 0);
        const std::vector<std::string> out = lines(run.out);
        ASSERT_GE(out.size(), 2u);
        EXPECT_EQ(out[0], path + c.header);
        const bool counted = c.rowLines == 500;
        EXPECT_EQ(out.size(), 2 + c.rowLines + (counted ? 0 : 1)) << run.out;
        EXPECT_EQ(out[1 + c.rowLines].substr(0, 8), "499  las");
    }
}

TEST(RegistryTool, ClearEmptiesRowZeroOfTheFixedFileThroughTheLibrary) {
    SKIP_WITHOUT_TOOL();
    const std::string why = xajms::test::enterPrivateOrlom();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    const std::string path = registry::kPath;
    const ToolRun absent = runRegistry({"--clear"});
    EXPECT_EQ(absent.status, 1);
    EXPECT_EQ(absent.err, "xajms-registry: " + path +
                              ": cannot open the registry file: No such file or directory; "
                              "nothing cleared\n");

    // A file without the signature is left as it is: the library would format it.
    const std::string junk(registry::kFileSize, 'j');
    writeBytes(path, junk.data(), junk.size());
    EXPECT_EQ(runRegistry({"--clear"}).status, 1);
    EXPECT_EQ(readBytes(path), junk);

    std::unique_ptr<File> file = formatted(2);
    setRow(*file, 0, 11, 40001, registry::kModeBroker, "EG0");
    setRow(*file, 1, 12, 40002, registry::kModePending, "EG1");
    writeBytes(path, file.get(), sizeof *file);
    const ToolRun run = runRegistry({"--clear"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, path +
                           ": row 0 emptied and the row count set to 0 (was 2); rows 1 and "
                           "above kept\n");
    const std::string after = readBytes(path);
    ASSERT_EQ(after.size(), sizeof(File));
    File cleared;
    std::memcpy(&cleared, after.data(), sizeof cleared);
    EXPECT_EQ(cleared.header.rowCount, 0);
    EXPECT_EQ(cleared.row[0].mode, registry::kModeEmpty);
    EXPECT_EQ(cleared.row[0].port, 0);
    EXPECT_EQ(std::memcmp(&cleared.row[1], &file->row[1], sizeof(registry::Row)), 0);

    const ToolRun again = runRegistry({"--clear"});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, path + ": nothing cleared, the row count is 0\n");
}

}  // namespace
