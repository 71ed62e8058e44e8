// The tools on their own, in a private /var/orlom: command lines, the listener's row, the registry.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>

#include "registry/registry.h"
#include "support/listener_process.h"
#include "support/orlom.h"

namespace {

namespace registry = xajms::registry;
using namespace xajms::test;
using Args = std::vector<std::string>;

const std::string kPath = registry::kPath;

// A formatted registry file with the row count and the rows given by index.
std::string registryFile(int32_t rowCount, const std::map<size_t, registry::Row> &rows) {
    registry::File file{};
    std::copy_n(registry::kPath, registry::kSignatureLength, file.header.signature);
    file.header.rowCount = rowCount;
    for (const auto &[index, row] : rows) {
        file.row[index] = row;
    }
    return std::string(reinterpret_cast<const char *>(&file), sizeof file);
}

std::string fileText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Tools : ::testing::Test {
    void SetUp() override {
        const std::string why =
            L.empty() || D.empty() || R.empty() ? "a tool is not built here" : enterPrivateOrlom();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
    }
    const std::string L = listenerPath(), D = drivePath(), R = registryToolPath();
};

TEST_F(Tools, RefuseBadCommandLinesWithOneLineAndStatusTwo) {
    // The tool, then its arguments: one row for each check of its command line.
    // clang-format off
    const Args cases[] = {
        {L, "--bogus"}, {L, "stray"}, {L, "--port"}, {L, "--port", "65536"}, {L, "--mode", "dead"},
        {L, "--late", "commit"}, {L, "--late", "close:1"}, {L, "--never", "0"}, {L, "--xid", "1"},
        {L, "--drop-every", "0"}, {L, "--name", std::string(129, 'n')}, {L, "--no-register=1"},
        {L, "--registry", ""}, {L, "--answer", "1:61:62"}, {L, "--answer=1:61:62=x"}, {D},
        {D, "--bogus", "open"}, {D, "frob"}, {D, "commit"},
        {D, "--xid", "1:g", "commit"}, {D, "--xid", "1:" + std::string(65, 'g') + ":b", "commit"},
        {D, "--rmid"}, {D, "--threads", "257", "open"}, {D, "--expect", "commit=XA_NOPE", "open"},
        {D, "--expect", "commit", "open"}, {D, "--broker=yes", "open"}, {D, "--start", "x", "open"},
        {D, "--xid", "1:g:b", "end=TMBOGUS"}, {D, "--library", "/none.so", "open"}, {R, "--bogus"},
        {R, "--file"}, {R, "--clear", "--json"}, {R, "--clear", "--file", "/tmp/x"},
    };
    // clang-format on
    for (const Args &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c));
        const ToolRun run = runTool(c[0], Args(c.begin() + 1, c.end()));
        EXPECT_EQ(std::pair(run.status, run.out), std::pair(2, std::string()));
        EXPECT_TRUE(run.err.starts_with(c[0].substr(c[0].rfind('/') + 1) + ": ")) << run.err;
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    }
}

TEST_F(Tools, ListenerRegistersItsRowAndEmptiesItOnEveryWayOut) {
    struct Case {
        const char *what, *text;     // the file before: this text, or when null a registry
        std::vector<int32_t> modes;  // with rows of these modes (pid 1, port 1000 + the row)
        int32_t rowCount;            // and this row count
        const char *mode;            // the listener's mode by name and by value, its row, the
        int32_t modeValue, row, count, signal;  // row count then, and the signal that stops it
    } cases[] = {
        {"text is wiped", "a text longer than the signature", {}, 0, "pending", 4, 0, 1, SIGINT},
        {"first empty row below the count", nullptr, {2, 0, 2}, 3, "recovery", 1, 1, 3, SIGINT},
        {"a dead row is not reused", nullptr, {2, 3}, 2, "broker", 2, 2, 3, SIGTERM},
        {"a negative count is raised", nullptr, {}, -1, "pending", 4, 0, 1, SIGTERM},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::map<size_t, registry::Row> rows;
        for (size_t r = 0; r < c.modes.size(); ++r) {
            rows[r] = {1, 0, 1000 + static_cast<int32_t>(r), c.modes[r], {}, {}};
        }
        std::ofstream(kPath) << (c.text != nullptr ? c.text : registryFile(c.rowCount, rows));
        ListenerProcess listener({"--mode", c.mode, "--name", "EG1", "--quiet"});
        ASSERT_TRUE(listener.started());
        rows[c.row] = {listener.pid(), 0, listener.port(), c.modeValue, {}, "EG1"};
        EXPECT_TRUE(fileText(kPath) == registryFile(c.count, rows));

        EXPECT_EQ(listener.stop(c.signal), 0);
        rows[c.row].pid = rows[c.row].port = rows[c.row].mode = 0;  // and all else kept
        EXPECT_TRUE(fileText(kPath) == registryFile(c.count, rows));
    }
}

TEST_F(Tools, RegistryShowsCountedRowsAndRowsInUseBeyondTheCount) {
    // pid 1 is alive and no pid exceeds 4194304; the name of row 3 fills its 128 bytes.
    std::string file =
        registryFile(4, {{0, {1, 0, 40001, registry::kModeBroker, {}, "EG1"}},
                         {1, {4194305, 0, 40002, registry::kModePending, {}, "a\\b\x01"}},
                         {3, {-1, 0, 40003, 7, {}, {}}},
                         {9, {0, 0, 40009, registry::kModeStartUpRecovery, {}, "late"}}});
    std::ofstream(kPath) << file.replace(40 + 152 * 3 + 24, 128, 128, 'N');
    // As the golden files, which XAJMS_UPDATE_GOLDEN=1 rewrites first.
    for (const auto &[args, name] : {std::pair(Args{}, "_table.txt"), {Args{"--json"}, ".json"}}) {
        const ToolRun run = runTool(R, args);
        const std::string path = std::string(XAJMS_TEST_DATA) + "/golden/registry" + name;
        if (std::getenv("XAJMS_UPDATE_GOLDEN") != nullptr) {
            std::ofstream(path, std::ios::binary) << run.out;
        }
        EXPECT_EQ(std::pair(run.status, run.out), std::pair(0, fileText(path))) << run.err;
    }
    // A row count outside 0..500 is shown as it is; rows are read up to the file's end.
    for (const auto &[rowCount, lines] : {std::pair(-5, 4), std::pair(9999, 502)}) {
        std::ofstream(kPath) << registryFile(rowCount, {{499, {0, 0, 40499, 2, {}, "last"}}});
        const std::string out = runTool(R, {}).out;
        EXPECT_EQ(out.substr(0, out.find('\n')),
                  kPath + ": row count " + std::to_string(rowCount) + " (outside 0..500)");
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), lines);
        EXPECT_NE(out.find("\n499  last "), std::string::npos);
    }
}

TEST_F(Tools, RegistryRefusesWhatIsNoRegistryAndClearsRowZero) {
    const std::string noSignature = registryFile(1, {}).replace(5, 1, "X");
    const registry::Row eg1 = {12, 0, 40002, 4, {}, "EG1"};
    const std::string used = registryFile(2, {{0, {11, 0, 40001, 2, {}, "EG0"}}, {1, eg1}});
    const std::string cleared =  // row 0 emptied; its name overwritten only by ' ' and '\0'
        registryFile(0, {{0, {0, 0, 0, 0, {}, {' ', '\0', '0'}}}, {1, eg1}});
    const std::string unformatted = ": not a formatted registry file (";
    struct Case {
        std::optional<std::string> before, after;  // the file before (or none), after if changed
        bool clear;
        std::string out, err;  // each after the path; err after "xajms-registry: " first
    } cases[] = {
        {std::string(1000, 'x'), {}, false, "", unformatted + "1000 of 76040 bytes)\n"},
        {std::nullopt, std::nullopt, true, "",
         ": cannot open the registry file: No such file or directory; nothing cleared\n"},
        // A file without the signature is left as it is: the library would format it.
        {noSignature, {}, true, "", unformatted + "no signature); nothing cleared\n"},
        {used, cleared, true,
         ": row 0 emptied and the row count set to 0 (was 2); rows 1 and above kept\n", ""},
        {cleared, {}, true, ": nothing cleared, the row count is 0\n", ""},
    };
    for (const Case &c : cases) {
        unlink(kPath.c_str());
        if (c.before) {
            std::ofstream(kPath) << *c.before;
        }
        const ToolRun run = runTool(R, c.clear ? Args{"--clear"} : Args{});
        EXPECT_EQ(run.status, c.err.empty() ? 0 : 1);
        EXPECT_EQ(run.out, c.out.empty() ? "" : kPath + c.out);
        EXPECT_EQ(run.err, c.err.empty() ? "" : "xajms-registry: " + kPath + c.err);
        EXPECT_TRUE(fileText(kPath) == c.after.value_or(c.before.value_or("")));
    }
    unlink(kPath.c_str());
    mkdir(kPath.c_str(), 0700);
    EXPECT_EQ(runTool(R, {}).err, "xajms-registry: " + kPath + ": not a regular file\n");
}

}  // namespace
