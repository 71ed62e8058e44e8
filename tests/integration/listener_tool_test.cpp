// The tools on their own, in a private /var/orlom: command lines, the listener's row, the registry.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>
#include <regex>

#include <xajms/xajms.h>

#include "registry/registry.h"
#include "support/listener_process.h"
#include "support/orlom.h"
#include "wait_reason.h"

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
        {L, "--xid", "0x10:g:b"}, {L, "--xid", "1:0x6:b"}, {D, "--xid", "1:g:0xzz", "commit"},
        {D, "--xid", "1:0x" + std::string(130, 'a') + ":b", "commit"}, {R, "--wait", "1"},
        {R, "--in-doubt", "--wait", "0"}, {R, "--in-doubt", "--wait=3601"},
        {R, "--in-doubt", "--wait"}, {R, "--clear", "--in-doubt"},
        {L, "--drop-every", "0"}, {L, "--name", std::string(129, 'n')}, {L, "--no-register=1"},
        {L, "--registry", ""}, {L, "--registry", "/no/such/dir/file"}, {L, "--answer", "1:a:b"},
        {L, "--answer=1:a:b=x"}, {D}, {D, "--bogus", "open"}, {D, "frob"}, {D, "commit"},
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
    // No pid exceeds 4194304: these rows name no live process, so --clear warns of none.
    const registry::Row eg1 = {4194306, 0, 40002, 4, {}, "EG1"};
    const std::string used = registryFile(2, {{0, {4194305, 0, 40001, 2, {}, "EG0"}}, {1, eg1}});
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
    // A live process registered in the file (pid 1) and one mapping it (this test, through
    // the library) are named before the file changes.
    std::ofstream(kPath) << registryFile(2, {{1, {1, 0, 40001, 2, {}, "EG1"}}});
    ASSERT_NE(GetSharedMemory_jms(), nullptr);
    EXPECT_EQ(runTool(R, {"--clear"}).err,
              "xajms-registry: warning: clearing row 0 and the row count of " + kPath +
                  ", which other live processes use: pid 1 (row 1 'EG1'); pid " +
                  std::to_string(getpid()) +
                  " (maps it); a queue manager using this file acts on the change (xajms-sandbox "
                  "gives a private file to try things in)\n");
    unlink(kPath.c_str());
    mkdir(kPath.c_str(), 0700);
    EXPECT_EQ(runTool(R, {}).err, "xajms-registry: " + kPath + ": not a regular file\n");
}

// Each listener the registry lists is asked once: its XIDs, or why they are unknown.
TEST_F(Tools, InDoubtListsEachListenersXidsOrSaysWhyItDidNotAnswer) {
    EXPECT_EQ(runTool(R, {"--in-doubt"}).status, 1);  // no registry file yet
    struct Case {
        Args args;  // of the listener EG<row>, which is killed when gone is set
        bool gone;
        std::string answer, detail, table;  // the JSON answer and detail, the table's column
        std::vector<std::string> xids;
    } cases[] = {
        {{"--mode", "broker", "--xid", "4711:order-2:branch-1", "--xid", "-7:0x00ff3a:b"},
         false,
         "answered",
         "",
         "2 in doubt",
         {"4711:order-2:branch-1", "-7:0x00ff3a:b"}},
        {{}, false, "answered", "", "none", {}},
        {{"--never", "recover"}, false, "no answer", "", "no answer within 0.2 s", {}},
        {{}, true, "unreachable", "Connection refused", "not reached: Connection refused", {}},
        {{"--recover-count", "2", "--xid", "1:a:b"},
         false,
         "bad reply",
         "record 2 of 2 lies beyond the xiddatasize",
         "bad reply: ",
         {}},
        {{"--recover-size", "27", "--xid", "1:a:b"},
         false,
         "no answer",
         "the wait ran out after 26 of the 27 bytes of the XID records",
         "no answer: ",
         {}},
        {{"--drop", "recover"},
         false,
         "no answer",
         "the connection was closed after 0 of the 16 bytes of the reply's head",
         "no answer: ",
         {}},
        {{"--half", "recover", "--xid", "1:a:b"},
         false,
         "no answer",
         "the connection was closed after 5 of the 26 bytes of the XID records",
         "no answer: ",
         {}},
    };
    std::vector<std::unique_ptr<ListenerProcess>> listeners;
    std::string json = "{\"file\":\"" + kPath + "\",\"waitMs\":200,\"listeners\":[";
    std::string table = kPath + ": 8 listeners asked, 2 answered within 0.2 s\n" +
                        "row execution group port pid mode in doubt\n";
    for (const Case &c : cases) {
        const std::string row = std::to_string(listeners.size()), name = "EG" + row;
        Args args = {"--mode", "pending", "--name", name, "--quiet"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const auto &l = listeners.emplace_back(std::make_unique<ListenerProcess>(args));
        ASSERT_TRUE(l->started()) << name;
        const std::string port = std::to_string(l->port()), pid = std::to_string(l->pid());
        const std::string mode = c.args.empty() || c.args[0] != "--mode" ? "pending" : "broker";
        if (c.gone) {
            EXPECT_EQ(l->stop(SIGKILL), 128 + SIGKILL);  // its row stays, its port is closed
        }
        if (listeners.size() == 2) {  // while every listener answers: status 0
            EXPECT_EQ(runTool(R, {"--in-doubt"}).status, 0);
        }
        json += std::string(row == "0" ? "" : ",") + "{\"row\":" + row + ",\"name\":\"" + name +
                "\",\"port\":" + port + ",\"pid\":" + pid +
                ",\"alive\":" + (c.gone ? "false" : "true") + ",\"mode\":\"" + mode +
                "\",\"answer\":\"" + c.answer + "\",\"detail\":\"" + c.detail + "\",\"xids\":[";
        table += row + " " + name + " " + port + " " + pid + (c.gone ? " gone " : " ") + mode +
                 " " + c.table + (c.table.ends_with(": ") ? c.detail : "") + "\n";
        for (const std::string &xid : c.xids) {
            json += std::string(xid == c.xids[0] ? "\"" : ",\"") + xid + "\"";
            table += " " + xid + "\n";
        }
        json += "]}";
    }
    json += "]}\n";
    table += "The XIDs that 6 of them hold in doubt are unknown.\n";
    const ToolRun asJson = runTool(R, {"--in-doubt", "--wait", "0.2", "--json"});
    EXPECT_EQ(std::pair(asJson.status, asJson.out), std::pair(1, json)) << asJson.err;
    // The table's columns are as wide as their widest cell: compared with single blanks.
    const ToolRun asTable = runTool(R, {"--in-doubt", "--wait=0.2"});
    EXPECT_EQ(std::pair(asTable.status, std::regex_replace(asTable.out, std::regex(" +"), " ")),
              std::pair(1, table));
}

// An XID that --in-doubt lists, pasted into xajms-drive, reaches the listener that holds it.
TEST_F(Tools, AnInDoubtXidPastedIntoDriveResolvesThatBranch) {
    const std::pair<std::string, std::string> cases[] = {
        {"4711:0x00ff3a0a:0x62713a01", "commit"},  // binary bytes and colons: hex
        {"-1:order-9:", "rollback"},               // printable text, an empty branch qualifier
        {"2147483647:0x:0x3078", "commit"},        // an empty gtrid, a bqual that starts 0x
    };
    for (const auto &[given, verb] : cases) {
        SCOPED_TRACE(given);
        ListenerProcess listener({"--name", "EG1", "--xid", given});
        ASSERT_TRUE(listener.started());
        const ToolRun listed = runTool(R, {"--in-doubt", "--wait", "2"});
        const std::string pasted = listed.out.substr(
            listed.out.rfind("\n  ") + 3, listed.out.size() - listed.out.rfind("\n  ") - 4);
        EXPECT_EQ(pasted, given) << listed.out;
        const ToolRun drove = runTool(D, {"--xid", pasted, "open", verb});
        EXPECT_EQ(drove.status, 0) << drove.out << drove.err;
        EXPECT_NE(
            drove.out.find("\n" + verb + " rmid=1 xid=" + given + " flags=TMNOFLAGS -> XA_OK"),
            std::string::npos)
            << drove.out;
        EXPECT_EQ(listener.nextLine(), "#1 recover rmid=1 flags=0x0000000001800000 -> xids=1");
        EXPECT_EQ(listener.nextLine(),
                  "#2 " + verb + " rmid=1 flags=0x0000000000000000 xid=" + given + " -> 0");
        EXPECT_EQ(listener.stop(), 0);
    }
}

TEST(DriveWaitReason, NamesTheWaitThatTheRegistryShows) {
    using xajms::tools::Snapshot;
    const xajms::tools::ShownRow eg1 = {0, "EG1", 40001, 1, true, registry::kModeBroker, true};
    xajms::tools::ShownRow eg2 = {1, "EG2", 40002, 4194305, false, registry::kModePending, true};
    const Snapshot none{1, true, {}};
    const Snapshot both{1, true, {eg1, eg2}};
    eg2.mode = registry::kModeDead;
    const Snapshot eg2Dead{1, true, {eg1, eg2}};
    const Snapshot onlyDead{1, true, {eg2}};
    eg2.mode = registry::kModeBroker;
    eg2.index = 2;  // beyond the row count and the row at it: not looked at
    const Snapshot beyond{1, true, {eg2}};
    const std::string noListener = "no listener is registered in " + kPath +
                                   " (no broker or pending row): the library looks for one 3 "
                                   "times, a second apart, then returns XAER_RMFAIL";
    const std::string refused =
        "the port of 'EG2' (port 40002, pid 4194305 gone) refused "
        "connections: the library tries 3 times, a second apart, then "
        "marks the row dead and goes on";
    const std::string waited = "waiting for the answers of 'EG1' (port 40001, pid 1 alive)";
    const std::string answers =
        ": the library waits up to 60 s for each listener's answer, then returns XAER_RMFAIL";
    struct Case {
        std::optional<Snapshot> before, after;
        double tookMs;
        std::string reason;
    } cases[] = {
        {none, std::nullopt, 3000,
         "why; without a registry file the library looks for one 3 "
         "times, a second apart, then returns XAER_RMFAIL"},
        {none, none, 3000, noListener},
        {onlyDead, onlyDead, 3000, noListener},  // marked dead before the call
        {none, beyond, 3000, noListener},
        {both, both, 1500, waited + ", 'EG2' (port 40002, pid 4194305 gone)" + answers},
        {both, eg2Dead, 3000, refused},
        {both, eg2Dead, 63000, refused + "; " + waited + answers},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.reason);
        EXPECT_EQ(xajms::drive::waitReason(c.before, c.after, "why", c.tookMs), c.reason);
    }
}

}  // namespace
