// The library as a coordinator drives it, against xajms-listener processes registered in the
// test's private /var/orlom and the test companion library: loaded with dlopen and called
// through the switch record in this process, or loaded and called by xajms-drive.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>

#include "support/listener_process.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/pellux.h"
#include "support/trace_file.h"

namespace {

using xajms::test::ListenerProcess;
using Args = std::vector<std::string>;

class Coordinator : public ::testing::Test {
  protected:
    void SetUp() override {
        if (xajms::test::listenerPath().empty() || xajms::test::drivePath().empty()) {
            GTEST_SKIP() << "xajms-listener or xajms-drive is not part of this build";
        }
        if (const std::string why = xajms::test::enterPrivateOrlom(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        loadSwitch();
    }
    // The switch as a coordinator finds it: the library loaded by path, its start function.
    void loadSwitch() {
        void *start = dlsym(dlopen(XAJMS_LIBRARY_PATH, RTLD_NOW), "OrloStart");
        ASSERT_NE(start, nullptr);
        sw = reinterpret_cast<xa_switch_t *(*)()>(start)();
    }
    ListenerProcess &listen(const Args &args) {
        // Emptied pool slots close descriptor 0; keep it away from the listeners' pipes.
        xajms::test::occupyDescriptorZero();
        listeners.push_back(std::make_unique<ListenerProcess>(args));
        EXPECT_TRUE(listeners.back()->started());
        return *listeners.back();
    }

    xa_switch_t *sw = nullptr;
    std::vector<std::unique_ptr<ListenerProcess>> listeners;
    XID xid = {4711, 7, 7, "gtrid01bqual01"};
    char openString[16] = "qm=QM1";
};

TEST_F(Coordinator, ListenerAnswersReachTheCoordinatorCombinedAndMapped) {
    const auto prepare = &xa_switch_t::xa_prepare_entry;
    const auto commit = &xa_switch_t::xa_commit_entry;
    const auto forget = &xa_switch_t::xa_forget_entry;
    struct Case {
        const char *what;
        std::vector<Args> listeners;  // asked in this order
        decltype(prepare) entry;
        int expected;
    };
    // clang-format off
    const Case cases[] = {
        {"rollback after prepare", {{"--rollback", "0"}}, &xa_switch_t::xa_rollback_entry, XA_OK},
        {"commit of a finished transaction", {{"--commit", "-4"}}, commit, XA_OK},
        {"commit failing in the listener", {{"--commit", "-3"}}, commit, XAER_RMFAIL},
        {"read-only prepare", {{"--prepare", "3"}}, prepare, XA_RDONLY},
        {"forget refused", {{"--forget", "-6"}}, forget, XAER_RMFAIL},
        {"a later 0 replaces a failure", {{"--prepare", "-6"}, {}}, prepare, XA_OK},
        {"half an answer, then closed", {{"--half", "forget"}}, forget, XAER_RMFAIL},
        {"a late answer", {{"--late", "commit:0.2", "--commit", "5"}}, commit, 5},
        {"a request number wins over the type",
         {{"--drop", "prepare", "--late", "1:0", "--prepare", "3"}}, prepare, XA_RDONLY},
        {"a later failure only lowers the result; pending listeners are asked as well",
         {{"--commit", "-6"}, {"--mode", "pending", "--commit", "-4"}}, commit, XAER_RMFAIL},
    };
    // clang-format on
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        listeners.clear();
        for (const Args &args : c.listeners) {
            listen(args);
        }
        EXPECT_EQ((sw->*c.entry)(&xid, 1, TMNOFLAGS), c.expected);
        for (const PortRow &row : processConnectionPool_jms.row) {  // a broken socket too
            EXPECT_TRUE(std::none_of(row.slot, row.slot + 30, [](auto &s) { return s.inUse; }));
        }
        for (const auto &listener : listeners) {
            EXPECT_TRUE(listener->nextLine().has_value());  // every listener was asked
        }
        EXPECT_EQ(sw->xa_close_entry(openString, 1, TMNOFLAGS), XA_OK);  // empties the pool
    }
}

TEST_F(Coordinator, RecoverReportsNothingAndAsksOnlyLiveBrokers) {
    XID found[8] = {};
    ListenerProcess &recovery = listen({"--mode", "recovery", "--xid", "7:61:62"});
    EXPECT_EQ(sw->xa_recover_entry(found, 8, 1, TMSTARTRSCAN | TMENDRSCAN), 0);
    // The start-up recovery and its close reach the recovery listener, which ends; the
    // recover entry before did not ask it.
    EXPECT_EQ(sendStartUpXARecover_jms(found, 8, 1, 0), 1);
    EXPECT_EQ(found[0].formatID, 7);
    EXPECT_TRUE(recovery.nextLine().value_or("").starts_with("#1 recover "));
    EXPECT_TRUE(recovery.nextLine().value_or("").starts_with("#2 close "));
    EXPECT_EQ(recovery.waitForExit(), 0);
    EXPECT_EQ(recovery.nextLine(0), std::nullopt);

    // Each broker's records go to the start of the caller's array, over the earlier ones.
    ListenerProcess &first = listen({"--mode", "broker", "--xid", "1:61:62"});
    ListenerProcess &second = listen({"--mode", "broker", "--xid", "3:61:62", "--xid", "4:61:62"});
    EXPECT_EQ(sw->xa_recover_entry(found, 8, 1, TMSTARTRSCAN | TMENDRSCAN), 0);
    EXPECT_EQ(found[0].formatID, 3);
    EXPECT_EQ(found[1].formatID, 4);
    EXPECT_TRUE(first.nextLine().value_or("").starts_with("#1 recover "));
    EXPECT_TRUE(second.nextLine().value_or("").starts_with("#1 recover "));
}

TEST_F(Coordinator, BrokerProcessReachesJavaForOpenStartAndEnd) {
    xajms::test::Pellux pellux;
    ASSERT_TRUE(pellux.loaded());
    reinterpret_cast<long (*)()>(dlsym(RTLD_DEFAULT, "ZJavaInitSwitchJMS"))();
    struct Case {
        int open, start, end;
        int opened, started, ended;
    } cases[] = {
        {0, 0, 0, XA_OK, XA_OK, XA_OK},
        {XAER_RMERR, XAER_PROTO, 7, XAER_RMERR, XAER_PROTO, XA_RBROLLBACK},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.open);
        pellux.answer(c.open, c.start, c.end);
        EXPECT_EQ(sw->xa_open_entry(openString, 2, TMNOFLAGS), c.opened);
        EXPECT_EQ(sw->xa_start_entry(&xid, 2, TMNOFLAGS), c.started);
        EXPECT_EQ(sw->xa_end_entry(&xid, 2, TMSUCCESS), c.ended);
        const auto calls = pellux.calls();
        ASSERT_EQ(calls.size(), 3U);
        EXPECT_STREQ(calls[0].openstring, "qm=QM1");
        EXPECT_EQ(std::memcmp(&calls[1].xid, &xid, sizeof xid), 0);
        EXPECT_EQ(calls[2].flags, TMSUCCESS);
    }
}

TEST_F(Coordinator, TwoPhaseCommitReachesTheBrokerAndTracesBothHalvesAsTheGoldenFile) {
    xajms::test::TempDir dir;
    const std::string prefix = dir.path() + "/qm";
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    ListenerProcess &listener = listen({"--mode", "broker", "--name", "EG1"});
    xajms::test::freezeTraceColumns();

    loadSwitch();
    sw->xa_open_entry(openString, 1, TMNOFLAGS);
    sw->xa_prepare_entry(&xid, 1, TMNOFLAGS);
    sw->xa_commit_entry(&xid, 1, TMNOFLAGS);
    sw->xa_close_entry(openString, 1, TMNOFLAGS);
    EXPECT_EQ(listener.nextLine(),
              "#1 prepare rmid=1 flags=0x0000000000000000 xid=0x1267:67747269643031:"
              "627175616c3031 -> 0");
    EXPECT_TRUE(listener.nextLine().value_or("").starts_with("#2 commit "));

    // What differs from run to run gets a fixed name: the listener's port and pid, socket
    // descriptors, and the address of the mapping.
    const std::pair<std::regex, std::string> names[] = {
        {std::regex("(port(?: |=| = |  = ))" + std::to_string(listener.port()) + "(?!\\d)"),
         "$1PORT"},
        {std::regex("(pid = )" + std::to_string(listener.pid()) + "(?!\\d)"), "$1LPID"},
        {std::regex("((?:sockfd(?: | = |=)|sokfd=|Sockfd=|closing socket ))\\d+"), "$1FD"},
        {std::regex("(shared_stuff = |attached at |process at )[0-9a-fA-F]{5,}"), "$1ADDRESS"},
    };
    std::vector<std::string> actual = xajms::test::traceLines(prefix);
    for (std::string &line : actual) {
        for (const auto &[pattern, name] : names) {
            line = std::regex_replace(line, pattern, name);
        }
    }
    const std::string golden = std::string(XAJMS_TEST_DATA) + "/golden/queue_manager_run.txt";
    if (std::getenv("XAJMS_UPDATE_GOLDEN") != nullptr) {
        std::ofstream out(golden);
        for (const std::string &line : actual) {
            out << line << '\n';
        }
    }
    EXPECT_EQ(actual, xajms::test::fileLines(golden));
}

// xajms-drive prints one line per call, its duration replaced by T here, and exits with 1 when
// a call returned another code than expected; its command line reaches the library as given.
TEST_F(Coordinator, DrivePrintsOneLinePerCallAndExitsOneOnAnUnexpectedCode) {
    ListenerProcess &listener =
        listen({"--mode", "broker", "--prepare", "3", "--commit", "-7", "--rollback", "42"});
    std::ifstream golden(std::string(XAJMS_TEST_DATA) + "/golden/drive_calls.txt");
    // clang-format off
    const Args calls = {"--rmid", "3", "--xid", "-1:gtrid01:bq:ual", "--count", "5",
        "--expect", "prepare=XA_RDONLY", "--expect", "commit=-7", "--expect", "start=XAER_RMERR",
        "--expect", "complete=XAER_RMFAIL", "open=a b'c", "start=TMJOIN", "end", "prepare",
        "commit=tmonephase+TMNOWAIT", "recover=0x1000000", "forget", "complete", "close"};
    // clang-format on
    const std::string gb = "xid=1:g:b flags=TMNOFLAGS -> ";
    const std::pair<Args, std::string> cases[] = {
        {calls, std::string(std::istreambuf_iterator<char>(golden), {})},
        {{"commit"}, "commit rmid=1 " + gb + "XAER_RMFAIL T (expected XA_OK)\n"},
        {{"--expect", "commit=-7", "commit"}, "commit rmid=1 " + gb + "XAER_RMFAIL T\n"},
        {{"--expect", "forget=XAER_NOTA", "forget"},
         "forget rmid=1 " + gb + "XA_OK T (expected XAER_NOTA)\n"},
        {{"--expect", "start=-7", "--expect", "start=xaer_rmerr", "start"},
         "start rmid=1 " + gb + "XAER_RMERR T\n"},
        {{"--expect", "rollback=42", "rollback"}, "rollback rmid=1 " + gb + "42 T\n"},
        {{"--expect", "recover=1", "recover"},
         "recover rmid=1 flags=TMSTARTRSCAN|TMENDRSCAN count=64 -> 0 xids T (expected 1)\n"},
        {{"open", "start", "open"},
         "open rmid=1 flags=TMNOFLAGS string='' -> XA_OK T\nstart rmid=1 " + gb +
             "XAER_RMERR T (expected XA_OK)\nopen rmid=1 flags=TMNOFLAGS string='' -> XA_OK T\n"},
        {{"--repeat", "2", "commit"},
         "thread=1 round=1 commit rmid=1 " + gb + "XAER_RMFAIL T (expected XA_OK)\n" +
             "thread=1 round=2 commit rmid=1 " + gb + "XAER_RMFAIL T (expected XA_OK)\n" +
             "total calls=2 unexpected=2 T\n"},
    };
    for (const auto &[args, out] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        Args all{"--xid", "1:g:b"};
        all.insert(all.end(), args.begin(), args.end());
        const xajms::test::ToolRun run = xajms::test::runTool(xajms::test::drivePath(), all);
        EXPECT_EQ(run.status, out.find("(expected") == std::string::npos ? 0 : 1) << run.err;
        EXPECT_EQ(std::regex_replace(run.out, std::regex(" [0-9.]+ ms| seconds=[0-9.]+"), " T"),
                  "OrloStart -> switch 'KEL_VARNELINK' flags=TMNOMIGRATE version=0 T\n" + out);
    }
    const std::string first = " xid=-0x1:67747269643031:62713a75616c -> ";
    EXPECT_EQ(listener.nextLine(), "#1 prepare rmid=3 flags=0x0000000000000000" + first + "3");
    EXPECT_EQ(listener.nextLine(), "#2 commit rmid=3 flags=0x0000000050000000" + first + "-7");
    EXPECT_EQ(listener.nextLine(), "#3 recover rmid=3 flags=0x0000000001000000 -> xids=0");
    EXPECT_EQ(listener.nextLine(), "#4 forget rmid=3 flags=0x0000000000000000" + first + "0");
}

}  // namespace
