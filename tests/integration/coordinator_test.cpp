// The library driven through its switch record, here or by xajms-drive, against xajms-listener
// processes registered in the test's private /var/orlom and the test companion library.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <list>
#include <regex>

#include "support/listener_process.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/pellux.h"
#include "support/trace_file.h"

namespace {

using namespace xajms::test;
using Args = std::vector<std::string>;

class Coordinator : public ::testing::Test {
  protected:
    void SetUp() override {
        const bool built = !listenerPath().empty() && !drivePath().empty();
        const std::string why = built ? enterPrivateOrlom() : "a tool is not built here";
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        // The switch as a coordinator finds it: the library loaded by path, its start function.
        void *start = dlsym(dlopen(XAJMS_LIBRARY_PATH, RTLD_NOW), "OrloStart");
        ASSERT_NE(start, nullptr);
        sw = reinterpret_cast<xa_switch_t *(*)()>(start)();
    }
    ListenerProcess &listen(const Args &args) {
        // Emptied pool slots close descriptor 0; keep it away from the listeners' pipes.
        occupyDescriptorZero();
        EXPECT_TRUE(listeners.emplace_back(args).started());
        return listeners.back();
    }

    xa_switch_t *sw = nullptr;
    std::list<ListenerProcess> listeners;
    XID xid = {4711, 7, 7, "gtrid01bqual01"};
    char openString[16] = "qm=QM1";
};

// What only listener processes show; the entries' mappings and the fan-out have unit tests.
TEST_F(Coordinator, ListenerAnswersReachTheCoordinatorAndLeaveNoSlotInUse) {
    const std::tuple<decltype(sw->xa_commit_entry), int, Args> cases[] = {
        {sw->xa_forget_entry, XAER_RMFAIL, {"--half", "forget"}},  // a broken socket
        // A rule for request 1 wins over the one for its type: answered 0.2 s late, not dropped.
        {sw->xa_prepare_entry, XA_RDONLY, {"--drop=prepare", "--late", "1:0.2", "--prepare", "3"}},
    };
    for (const auto &[entry, expected, args] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        ListenerProcess &listener = listen(args);
        EXPECT_EQ(entry(&xid, 1, TMNOFLAGS), expected);
        for (const PortRow &row : processConnectionPool_jms.row) {
            EXPECT_TRUE(std::none_of(row.slot, row.slot + 30, [](auto &s) { return s.inUse; }));
        }
        EXPECT_TRUE(listener.nextLine().has_value());
        EXPECT_EQ(sw->xa_close_entry(openString, 1, TMNOFLAGS), XA_OK);  // empties the pool
        listeners.clear();
    }
}

TEST_F(Coordinator, RecoverReportsNothingAndAsksOnlyLiveBrokers) {
    XID found[8] = {};
    ListenerProcess &recovery = listen({"--mode", "recovery", "--xid", "7:a:b"});
    EXPECT_EQ(sw->xa_recover_entry(found, 8, 1, TMSTARTRSCAN | TMENDRSCAN), 0);
    // Only the start-up recovery and its close (numbered #1 and #2) reach the recovery listener.
    EXPECT_EQ(sendStartUpXARecover_jms(found, 8, 1, 0), 1);
    EXPECT_EQ(found[0].formatID, 7);
    EXPECT_EQ(recovery.nextLine(), "#1 recover rmid=1 flags=0x0000000000000000 -> xids=1");
    EXPECT_EQ(recovery.nextLine(),
              "#2 close rmid=1 flags=0x0000000000000000 text=\"Cleanup Java Process\" -> exit");
    EXPECT_EQ(recovery.waitForExit(), 0);

    // A broker's records go to the start of the caller's array, over the earlier ones.
    ListenerProcess &broker = listen({"--mode", "broker", "--xid", "3:a:b", "--xid", "4:a:b"});
    EXPECT_EQ(sw->xa_recover_entry(found, 8, 1, TMSTARTRSCAN | TMENDRSCAN), 0);
    EXPECT_EQ(std::pair(found[0].formatID, found[1].formatID), std::pair(3L, 4L));
    EXPECT_EQ(broker.nextLine(), "#1 recover rmid=1 flags=0x0000000001800000 -> xids=2");
}

TEST_F(Coordinator, BrokerProcessReachesJavaForOpenStartAndEnd) {
    Pellux pellux;
    ASSERT_TRUE(pellux.loaded());
    reinterpret_cast<long (*)()>(dlsym(RTLD_DEFAULT, "ZJavaInitSwitchJMS"))();
    pellux.answer(XAER_RMERR, XAER_PROTO, 7);
    EXPECT_EQ(sw->xa_open_entry(openString, 2, TMNOFLAGS), XAER_RMERR);
    EXPECT_EQ(sw->xa_start_entry(&xid, 2, TMNOFLAGS), XAER_PROTO);
    EXPECT_EQ(sw->xa_end_entry(&xid, 2, TMSUCCESS), XA_RBROLLBACK);
    const auto calls = pellux.calls();
    ASSERT_EQ(calls.size(), 3U);
    EXPECT_STREQ(calls[0].openstring, "qm=QM1");
    EXPECT_EQ(std::memcmp(&calls[1].xid, &xid, sizeof xid), 0);
    EXPECT_EQ(calls[2].flags, TMSUCCESS);
}

TEST_F(Coordinator, TwoPhaseCommitReachesTheBrokerAndTracesBothHalvesAsTheGoldenFile) {
    TempDir dir;
    const std::string prefix = dir.path() + "/qm";
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    ListenerProcess &listener = listen({"--mode", "broker", "--name", "EG1"});
    freezeTraceColumns();

    OrloStart();  // again, to take up the trace file
    sw->xa_open_entry(openString, 1, TMNOFLAGS);
    sw->xa_prepare_entry(&xid, 1, TMNOFLAGS);
    sw->xa_commit_entry(&xid, 1, TMNOFLAGS);
    sw->xa_close_entry(openString, 1, TMNOFLAGS);

    // Fixed names for what differs between runs: port, pid, descriptors, mapping address.
    const std::pair<std::regex, std::string> names[] = {
        {std::regex("(port(?: |=| = |  = ))" + std::to_string(listener.port()) + "(?!\\d)"),
         "$1PORT"},
        {std::regex("(pid = )" + std::to_string(listener.pid()) + "(?!\\d)"), "$1LPID"},
        {std::regex("((?:sockfd(?: | = |=)|sokfd=|Sockfd=|closing socket ))\\d+"), "$1FD"},
        {std::regex("(shared_stuff = |attached at |process at )[0-9a-fA-F]{5,}"), "$1ADDRESS"},
    };
    std::vector<std::string> actual = traceLines(prefix);
    for (std::string &line : actual) {
        for (const auto &[pattern, name] : names) {
            line = std::regex_replace(line, pattern, name);
        }
    }
    const std::string golden = std::string(XAJMS_TEST_DATA) + "/golden/queue_manager_run.txt";
    if (std::getenv("XAJMS_UPDATE_GOLDEN") != nullptr) {
        std::ofstream out(golden);
        std::ranges::copy(actual, std::ostream_iterator<std::string>(out, "\n"));
    }
    EXPECT_EQ(actual, fileLines(golden));
}

// xajms-drive prints a line per call (duration as T here) and exits with 1 on an unexpected code.
TEST_F(Coordinator, DrivePrintsOneLinePerCallAndExitsOneOnAnUnexpectedCode) {
    ListenerProcess &listener = listen({"--mode", "broker", "--prepare", "3", "--commit", "-7"});
    std::ifstream golden(std::string(XAJMS_TEST_DATA) + "/golden/drive_calls.txt");
    // Expected codes by name, by number and in any case; a later --expect for a verb wins.
    // clang-format off
    const Args calls = {"--rmid=3", "--xid=-1:gtrid01:0x62713a75616c", "--count=5",
        "--expect=commit=-7", "--expect=prepare=XA_RDONLY", "--expect=start=-7", "--expect=start=xaer_rmerr",
        "--expect=complete=XAER_RMFAIL", "open=a b'c", "start=TMJOIN", "end", "prepare",
        "commit=tmonephase+TMNOWAIT", "recover=0x1000000", "forget", "complete", "close"};
    // clang-format on
    const std::string commit = "commit rmid=1 xid=1:g:b flags=TMNOFLAGS -> XAER_RMFAIL T";
    const std::pair<Args, std::string> cases[] = {
        {calls, std::string(std::istreambuf_iterator<char>(golden), {})},
        {{"--xid", "1:g:b", "--repeat", "2", "commit"},
         "thread=1 round=1 " + commit + " (expected XA_OK)\nthread=1 round=2 " + commit +
             " (expected XA_OK)\ntotal calls=2 unexpected=2 T\n"},
    };
    for (const auto &[args, out] : cases) {
        const ToolRun run = runTool(drivePath(), args);
        EXPECT_EQ(run.status, out.find("(expected") == std::string::npos ? 0 : 1) << run.err;
        EXPECT_EQ(std::regex_replace(run.out, std::regex(" [0-9.]+ ms| seconds=[0-9.]+"), " T"),
                  "OrloStart -> switch 'KEL_VARNELINK' flags=TMNOMIGRATE version=0 T\n" + out);
    }
    const std::string first = " xid=-1:gtrid01:0x62713a75616c -> ";  // as xajms-drive prints it
    EXPECT_EQ(listener.nextLine(), "#1 prepare rmid=3 flags=0x0000000000000000" + first + "3");
    EXPECT_EQ(listener.nextLine(), "#2 commit rmid=3 flags=0x0000000050000000" + first + "-7");
    EXPECT_EQ(listener.nextLine(), "#3 recover rmid=3 flags=0x0000000001000000 -> xids=0");
    EXPECT_EQ(listener.nextLine(), "#4 forget rmid=3 flags=0x0000000000000000" + first + "0");
}

// A transaction manager that loads the switch per client: a thousand load, open, prepare,
// commit, (close,) unload cycles leave the process no descriptor and no mapping, whether the
// last close emptied the pool or the unload has to.
TEST_F(Coordinator, UnloadingTheLibraryGivesBackWhatItHeld) {
    listen({"--mode", "broker", "--quiet"});
    for (const Args &verbs :
         {Args{"open=qm", "prepare", "commit", "close"}, Args{"open=qm", "prepare", "commit"}}) {
        Args args = {"--reload", "--repeat", "1000", "--xid", "1:g:b"};
        args.insert(args.end(), verbs.begin(), verbs.end());
        const ToolRun run = runTool(drivePath(), args);
        EXPECT_EQ(run.status, 0) << run.err;
        const std::string last = run.out.substr(run.out.rfind('\n', run.out.size() - 2) + 1);
        // The sanitizers' allocator may give mappings back; none may be gained.
        EXPECT_TRUE(std::regex_match(
            last, std::regex("unloaded 1000 times: descriptors \\+0, mappings (\\+0|-[0-9]+) "
                             "after the first unload\n")))
            << last;
    }
}

// A queue-manager process given the companion only through the loader's path: start and
// end reach it and the process lives on (the companion stays loaded after the fetch).
TEST_F(Coordinator, DriveReachesACompanionFoundOnlyOnTheLoaderPath) {
    const std::string companion = XAJMS_PELLUX_PATH;
    setenv("LD_LIBRARY_PATH", companion.substr(0, companion.rfind('/')).c_str(), 1);
    const ToolRun run =
        runTool(drivePath(), {"--xid", "1:g:b", "open=qm", "start", "end", "close"});
    unsetenv("LD_LIBRARY_PATH");
    EXPECT_EQ(run.status, 0) << run.out << run.err;
}

}  // namespace
