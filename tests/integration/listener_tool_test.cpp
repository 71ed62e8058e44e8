// The tools on their own: the refused command lines of all three; the row of xajms-listener
// in a registry file, filled at start-up and emptied on the way out; xajms-registry on
// crafted files at the fixed path inside a private /var/orlom.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>

#include "registry/registry.h"
#include "support/listener_process.h"
#include "support/orlom.h"
#include "support/trace_file.h"

namespace {

namespace registry = xajms::registry;
using xajms::test::runTool;
using xajms::test::ToolRun;
using Args = std::vector<std::string>;

const std::string kPath = registry::kPath;

// A formatted registry file with the row count and the rows given by index.
std::string registryFile(int32_t rowCount, const std::map<size_t, registry::Row> &rows) {
    auto file = std::make_unique<registry::File>();
    std::memcpy(file->header.signature, registry::kPath, registry::kSignatureLength);
    file->header.rowCount = rowCount;
    for (const auto &[index, row] : rows) {
        file->row[index] = row;
    }
    return std::string(reinterpret_cast<const char *>(file.get()), sizeof *file);
}

std::string fileText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(Tools, RefuseBadCommandLinesWithOneLineAndStatusTwo) {
    const std::string L = "xajms-listener", D = "xajms-drive", R = "xajms-registry";
    const std::map<std::string, std::string> paths = {{L, xajms::test::listenerPath()},
                                                      {D, xajms::test::drivePath()},
                                                      {R, xajms::test::registryToolPath()}};
    for (const auto &[name, path] : paths) {
        if (path.empty()) {
            GTEST_SKIP() << name << " is not part of this build";
        }
    }
    const std::string g65(65, 'g');
    // The tool, then its arguments.
    // clang-format off
    const Args cases[] = {
        {L, "--bogus"}, {L, "stray"}, {L, "--port"}, {L, "--port", "65536"}, {L, "--mode", "dead"},
        {L, "--prepare", "1x"}, {L, "--commit", "4294967296"}, {L, "--late", "commit"},
        {L, "--late", "close:1"}, {L, "--never", "0"}, {L, "--drop", "x"}, {L, "--drop-every", "0"},
        {L, "--xid", "1:ab"}, {L, "--xid", "0xg:aa:bb"}, {L, "--name", std::string(129, 'n')},
        {L, "--no-register=1"}, {L, "--registry", ""},
        {D}, {D, "--bogus", "open"}, {D, "frobnicate"}, {D, "commit"},
        {D, "--xid", "4711:gtrid", "commit"}, {D, "--xid", "1:" + g65 + ":b", "commit"},
        {D, "--rmid"}, {D, "--rmid", "1x", "open"}, {D, "--repeat", "0", "open"},
        {D, "--threads", "257", "open"}, {D, "--count", "-1", "recover"},
        {D, "--expect", "commit=XA_NOPE", "open"}, {D, "--expect", "commit", "open"},
        {D, "--broker=yes", "open"}, {D, "--xid", "1:g:b", "end=TMBOGUS"},
        {D, "--library", "/nonexistent/libnothing.so", "open"}, {D, "--start", "NoSuch", "open"},
        {R, "--bogus"}, {R, "--file"}, {R, "--clear", "--json"}, {R, "--clear", "--file", "/tmp/x"},
    };
    // clang-format on
    for (const Args &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c));
        const ToolRun run = runTool(paths.at(c[0]), Args(c.begin() + 1, c.end()));
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.starts_with(c[0] + ": ")) << run.err;
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    }
    for (const auto &[name, path] : paths) {
        const ToolRun help = runTool(path, {"--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_TRUE(help.out.starts_with("usage: " + name)) << help.out;
    }
}

TEST(ListenerTool, RegistersItsRowAndEmptiesItOnEveryWayOut) {
    if (xajms::test::listenerPath().empty()) {
        GTEST_SKIP() << "xajms-listener is not part of this build";
    }
    struct Case {
        const char *what;
        const char *text;            // the file before: none for "", else this text, or when
        std::vector<int32_t> modes;  // null a registry with rows of these modes (pid 1, port
        int32_t rowCount;            // 1000 + the row) and this row count
        const char *mode;
        int32_t modeValue;
        size_t row;
        int32_t count;
        int signal;
    } cases[] = {
        {"absent file is created", "", {}, 0, "broker", 2, 0, 1, SIGTERM},
        {"short unsigned file is formatted", "not a registry", {}, 0, "pending", 4, 0, 1, SIGINT},
        {"first empty row below the count", nullptr, {2, 0, 2}, 3, "recovery", 1, 1, 3, SIGINT},
        {"a dead row is not reused", nullptr, {2, 3}, 2, "broker", 2, 2, 3, SIGTERM},
        {"a negative count is raised", nullptr, {}, -1, "pending", 4, 0, 1, SIGTERM},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        xajms::test::TempDir dir;
        const std::string path = dir.path() + "/XA_SWITCH_MMF";
        std::map<size_t, registry::Row> rows;
        for (size_t r = 0; r < c.modes.size(); ++r) {
            rows[r] = {1, 0, 1000 + static_cast<int32_t>(r), c.modes[r], {}, {}};
        }
        if (c.text == nullptr || *c.text != '\0') {
            std::ofstream(path) << (c.text != nullptr ? c.text : registryFile(c.rowCount, rows));
        }
        xajms::test::ListenerProcess listener(
            {"--registry", path, "--mode", c.mode, "--name", "EG1", "--quiet"});
        ASSERT_TRUE(listener.started());
        rows[c.row] = {listener.pid(), 0, listener.port(), c.modeValue, {}, "EG1"};
        EXPECT_TRUE(fileText(path) == registryFile(c.count, rows));

        EXPECT_EQ(listener.stop(c.signal), 0);
        // Its pid, port and mode are emptied; nothing else in the file changes.
        rows[c.row].pid = rows[c.row].port = rows[c.row].mode = 0;
        EXPECT_TRUE(fileText(path) == registryFile(c.count, rows));
    }
}

class RegistryTool : public ::testing::Test {
  protected:
    void SetUp() override {
        if (xajms::test::registryToolPath().empty()) {
            GTEST_SKIP() << "xajms-registry is not part of this build";
        }
        if (const std::string why = xajms::test::enterPrivateOrlom(); !why.empty()) {
            GTEST_SKIP() << why;
        }
    }
    static ToolRun show(const Args &args) { return runTool(xajms::test::registryToolPath(), args); }
};

TEST_F(RegistryTool, ShowsCountedRowsAndRowsInUseBeyondTheCount) {
    // pid 1 is always alive, and no process has a pid above 4194304; the name of row 3 fills
    // its 128 bytes, without terminator.
    std::string file =
        registryFile(4, {{0, {1, 0, 40001, registry::kModeBroker, {}, "EG1"}},
                         {1, {4194305, 0, 40002, registry::kModePending, {}, "a\\b\x01"}},
                         {3, {-1, 0, 40003, 7, {}, {}}},
                         {9, {0, 0, 40009, registry::kModeStartUpRecovery, {}, "late"}}});
    file.replace(40 + 152 * 3 + 24, 128, 128, 'N');
    std::ofstream(kPath) << file;
    // The table and the JSON compare with files in the golden directory, which
    // XAJMS_UPDATE_GOLDEN=1 rewrites first.
    for (const char *json : {"", "--json"}) {
        const ToolRun run = show(*json != '\0' ? Args{json} : Args{});
        EXPECT_EQ(run.status, 0) << run.err;
        const std::string golden = std::string(XAJMS_TEST_DATA) + "/golden/registry" +
                                   (*json != '\0' ? ".json" : "_table.txt");
        if (std::getenv("XAJMS_UPDATE_GOLDEN") != nullptr) {
            std::ofstream(golden, std::ios::binary) << run.out;
        }
        EXPECT_EQ(run.out, fileText(golden));
    }

    // A row count outside 0..500 is shown as it is; rows are read up to the file's end.
    for (const auto &[rowCount, lines] : {std::pair(-5, 4), std::pair(9999, 502)}) {
        std::ofstream(kPath) << registryFile(rowCount, {{499, {0, 0, 40499, 2, {}, "last"}}});
        const std::string out = show({}).out;
        EXPECT_TRUE(out.starts_with(kPath + ": row count " + std::to_string(rowCount) +
                                    " (outside 0..500)\n"))
            << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), lines);
        EXPECT_NE(out.find("\n499  last "), std::string::npos);
    }
}

TEST_F(RegistryTool, RefusesWhatIsNoRegistryAndClearsRowZero) {
    std::string noSignature = registryFile(1, {});
    noSignature[5] = 'X';
    const std::string used =
        registryFile(2, {{0, {11, 0, 40001, 2, {}, "EG0"}}, {1, {12, 0, 40002, 4, {}, "EG1"}}});
    // Row 0 emptied: its name is overwritten by a blank and its terminator only.
    const std::string cleared = registryFile(
        0, {{0, {0, 0, 0, 0, {}, {' ', '\0', '0'}}}, {1, {12, 0, 40002, 4, {}, "EG1"}}});
    const std::string absent = ": cannot open the registry file: No such file or directory";
    const std::string unformatted = ": not a formatted registry file (";
    struct Case {
        std::optional<std::string> before;  // the file at the fixed path, or none
        bool clear;
        std::string out;  // each after the path
        std::string err;  // each after "xajms-registry: " and the path
        std::optional<std::string> after = std::nullopt;  // the file afterwards, if changed
    } cases[] = {
        {std::nullopt, false, "", absent + "\n"},
        {"", false, "", unformatted + "0 of 76040 bytes)\n"},
        {std::string(1000, 'x'), false, "", unformatted + "1000 of 76040 bytes)\n"},
        {noSignature, false, "", unformatted + "no signature)\n"},
        {std::nullopt, true, "", absent + "; nothing cleared\n"},
        // A file without the signature is left as it is: the library would format it.
        {std::string(registry::kFileSize, 'j'), true, "",
         unformatted + "no signature); nothing cleared\n"},
        {used, true, ": row 0 emptied and the row count set to 0 (was 2); rows 1 and above kept\n",
         "", cleared},
        {cleared, true, ": nothing cleared, the row count is 0\n", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.out + c.err);
        unlink(kPath.c_str());
        if (c.before) {
            std::ofstream(kPath) << *c.before;
        }
        const ToolRun run = show(c.clear ? Args{"--clear"} : Args{});
        EXPECT_EQ(run.status, c.err.empty() ? 0 : 1);
        EXPECT_EQ(run.out, c.out.empty() ? "" : kPath + c.out);
        EXPECT_EQ(run.err, c.err.empty() ? "" : "xajms-registry: " + kPath + c.err);
        EXPECT_TRUE(fileText(kPath) == c.after.value_or(c.before.value_or("")));
    }
    unlink(kPath.c_str());
    mkdir(kPath.c_str(), 0700);
    EXPECT_EQ(show({}).err, "xajms-registry: " + kPath + ": not a regular file\n");
}

}  // namespace
