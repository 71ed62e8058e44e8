// The XA entries: the open table, the JNI bridge of a broker process, and how the completion
// entries map the listeners' answer, scripted through the senders replaced below.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/pellux.h"
#include "support/scripted_listener.h"
#include "support/trace_file.h"

static int scriptedAnswer = 0;
static std::vector<int> sent;  // the request codes of the sender calls

static int answer(int request) {
    sent.push_back(request);
    return scriptedAnswer;
}

extern "C" {
int sendXAPrepare_jms(const XID *, int, long) {
    return answer(0x2002);
}
int sendXACommit_jms(const XID *, int, long) {
    return answer(0x2003);
}
int sendXARollback_jms(const XID *, int, long) {
    return answer(0x2004);
}
int sendXAForget_jms(const XID *, int, long) {
    return answer(0x2008);
}
}

namespace {

using namespace xajms::test;
using Lines = std::vector<std::string>;

int open(std::string text, int rmid) {
    return xa_open_entry_jms(text.data(), rmid, TMNOFLAGS);
}

TEST(OpenTable, OpensNestByCountAndTheFirstAndTheLastEmptyThePool) {
    const SocketSlot &slot = processConnectionPool_jms.row[0].slot[0];
    poolPeer(4000, {});
    EXPECT_EQ(open("queue=A", 5) + open("queue=A", 5) + open("queue=B", 6), XA_OK);
    EXPECT_EQ(slot.sockfd, 0);
    for (int left : {2, 1, 0, 0}) {  // the last close has no open
        poolPeer(4000, {});
        EXPECT_EQ(xa_close_entry_jms(nullptr, 5, TMNOFLAGS), XA_OK);
        EXPECT_EQ(intXAOpen_jms, left);
        EXPECT_EQ(pRmidOpenstrTable != nullptr, left > 0);
        EXPECT_EQ(slot.sockfd == 0, left == 0);
    }
}

// 500 records: a 501st rmid is refused, known rmids still open and keep their first string;
// a long string is stored as 256 characters without terminator, a null one as empty.
TEST(OpenTable, FullTableRefusesA501stRmidAndStringsStayInTheirRecord) {
    EXPECT_EQ(open(std::string(300, 'o'), 0), XA_OK);
    EXPECT_EQ(std::string(pRmidOpenstrTable[0].openstring, 256), std::string(256, 'o'));
    EXPECT_EQ(pRmidOpenstrTable[1].rmid, 999U);  // the next record is untouched, still empty
    EXPECT_STREQ(pRmidOpenstrTable[1].openstring, " ");
    EXPECT_EQ(xa_open_entry_jms(nullptr, 1, TMNOFLAGS), XA_OK);
    EXPECT_STREQ(pRmidOpenstrTable[1].openstring, "");
    for (int rmid = 2; rmid < 500; ++rmid) {
        ASSERT_EQ(open("o", rmid), XA_OK);
    }
    EXPECT_EQ(open("o", 500), XAER_RMERR);
    EXPECT_EQ(open("other", 499), XA_OK);
    EXPECT_STREQ(pRmidOpenstrTable[499].openstring, "o");
}

class JniBridge : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(pellux.loaded()); }
    Pellux pellux;
    XID xid{};
};

// Once the broker has deployed, Java's failure to open is forgiven, not its failure to end.
TEST_F(JniBridge, BrokerProcessOpensAndEndsInJava) {
    ZJavaInitSwitchJMS();
    for (const auto &[java, deployed] : {std::pair{0, 0}, {XAER_RMERR, 1}}) {
        pellux.answer(java, 0, java);
        flBrokerHasDeployed_jms = deployed;
        EXPECT_EQ(open("broker=B1", 3), XA_OK);
        EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), java == 0 ? XA_OK : XA_RBROLLBACK);
    }
    EXPECT_EQ(pRmidOpenstrTable, nullptr);
}

// The stored open string fills its record: Java gets it cut at 256 characters.
TEST_F(JniBridge, StartReplaysTheStoredOpenOnceAndFollowsJavaUnlessDeployed) {
    // open stored, Java's open and start answers, deployed, result, slots called, switch
    // kept, rmid started
    const std::tuple<bool, int, int, int, int, std::vector<int>, int, int> cases[] = {
        {false, 0, 0, 0, XA_OK, {2, 2}, 0, 7},
        {true, -3, 0, 0, XA_OK, {0, 2, 0, 2}, 0, 7},  // a failed deferred open is tried again
        {true, 0, XAER_PROTO, 1, XA_OK, {0, 2, 2}, 1, 7},
        {true, 0, 0, 0, XA_OK, {2, 2}, 0, 9}};  // no record for the rmid: nothing to replay
    for (const auto &[store, openRc, startRc, deployed, result, called, gotSwitch, rmid] : cases) {
        SCOPED_TRACE(testing::PrintToString(called));
        flGotJNISwitch_jms = 0;
        if (store) {  // the records stay from the first case with one
            open("other", 3);
            open(std::string(300, 'o'), 7);
        }
        flBrokerHasDeployed_jms = deployed;
        pellux.answer(openRc, startRc, 0);
        EXPECT_EQ(xa_start_entry_jms(&xid, rmid, TMNOFLAGS), result);
        EXPECT_EQ(xa_start_entry_jms(&xid, rmid, TMNOFLAGS), result);
        const std::vector<PelluxCall> calls = pellux.calls();
        std::vector<int> slots(calls.size());
        std::transform(calls.begin(), calls.end(), slots.begin(), [](auto &c) { return c.slot; });
        ASSERT_EQ(slots, called);
        EXPECT_EQ(flGotJNISwitch_jms, gotSwitch);
        EXPECT_EQ(calls[0].openstring, store && rmid == 7 ? std::string(256, 'o') : "");
        EXPECT_EQ(calls[0].rmid, rmid);
    }
}

// A table of null slots, no companion library (the table is dropped), or no entry point.
TEST_F(JniBridge, UnreachableJavaIsReportedWithoutCallingThroughNull) {
    JNISwitchJMS nullSlots{};
    pJNI_Switch = &nullSlots;
    flGotJNISwitch_jms = 1;
    ZJavaInitSwitchJMS();
    const DlopenScript cases[] = {
        nullptr, [](const char *, int) -> void * { return nullptr; },
        [](const char *, int mode) { return realDlopen("libc.so.6", mode); }};
    for (const DlopenScript &load : cases) {
        setDlopen(load);
        EXPECT_EQ(xa_start_entry_jms(&xid, 1, TMNOFLAGS), XAER_RMERR);
        EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), XA_OK);
        EXPECT_EQ(open("o", 3), XAER_RMERR);
        flGotJNISwitch_jms = 0;
    }
    EXPECT_EQ(pJNI_Switch, nullptr);
    EXPECT_TRUE(pellux.calls().empty());
    clearScripts();
}

// A queue-manager process that finds the companion only on the loader's path holds it
// through nobody else: the fetch must not unload the code its table points into.
TEST(JniBridgeAlone, CompanionFoundOnlyOnTheLoaderPathStaysLoaded) {
    ASSERT_EQ(realDlopen(XAJMS_PELLUX_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
    setDlopen([](const char *file, int mode) {
        return std::string(file) == "libPellux.so" ? realDlopen(XAJMS_PELLUX_PATH, mode)
                                                   : realDlopen(file, mode);
    });
    XID xid{};
    EXPECT_EQ(xa_start_entry_jms(&xid, 1, TMNOFLAGS), XA_OK);
    EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), XA_OK);
    EXPECT_EQ(xa_start_entry_jms(&xid, 1, TMNOFLAGS), XA_OK);
    clearScripts();
    void *held = realDlopen(XAJMS_PELLUX_PATH, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(held, nullptr);
    if (held != nullptr) {
        dlclose(held);
    }
}

TEST_F(JniBridge, DeferredStartIsTracedStepByStep) {
    open("qm", 7);
    TempDir dir;
    freezeTraceColumns();
    enableVarnelinkTrace(dir.path() + "/t");

    xa_start_entry_jms(&xid, 7, TMJOIN);

    const std::string start = "  Varnelink xa_start_entry_jms ",
                      jni = "  Varnelink GetJniSwitch_jms    ";
    EXPECT_EQ(traceLines(dir.path() + "/t"),
              (Lines{golden(1, "{ Varnelink xa_start_entry_jms   rmid=7 "),
                     golden(1, start + "  flags==          200000"),
                     golden(1, start + " flGotJNISwitch =    flags==               0"),
                     golden(3, "{ Varnelink GetJniSwitch_jms "),
                     golden(3, jni + "JMS JNI LoadLibrary successful"),
                     golden(3, jni + "got JMS JNI library entry point"),
                     golden(3, "} Varnelink GetJniSwitch_jms "),
                     golden(1, start + "  Retrieving Openstring stored by xa_open_entry_jms"),
                     golden(1, start + "  found rmid in openstrings and calling jniXAJMSOpen"),
                     golden(1, start + "  return code from jniXAJMSOpen = 0"),
                     golden(1, start + "  Broker JVM is available"),
                     golden(1, start + "  return code from jniXAJMSStart = 0"),
                     golden(1, "        Return code = XA_OK         "),
                     golden(1, "} Varnelink xa_start_entry_jms   jniXAJMSStart_jms returned 0")}));
}

// The first start function called fixes the process's mode: it keeps returning its record,
// the other one returns null. Each order in a child process of its own.
TEST(StartFunctions, TheFirstCalledFixesTheModeAndTheOtherReturnsNull) {
    using Start = xa_switch_t *(*)();
    const std::pair<Start, Start> orders[] = {{OrloStart, OrloStartSafe},
                                              {OrloStartSafe, OrloStart}};
    for (const auto &[first, other] : orders) {
        const pid_t pid = fork();
        if (pid == 0) {
            xa_switch_t *record = first();
            const bool held = record != nullptr && other() == nullptr && first() == record &&
                              (record == &jta_switch_jms) == (first == OrloStart) &&
                              std::string(record->name) == "KEL_VARNELINK" &&
                              record->xa_recover_entry == xa_recover_entry_jms &&
                              iOrloStart_jms == 3;
            _exit(held ? 0 : 1);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0) << (first == OrloStart ? "OrloStart first" : "OrloStartSafe first");
    }
}

TEST(StartFunctions, ARefusedStartIsTracedAsAStartWithItsReason) {
    TempDir dir;
    freezeTraceColumns();
    unsetenv("XAJMS_LOCATION");
    setenv("XAJMS_TRACEFILE", (dir.path() + "/t").c_str(), 1);
    ASSERT_NE(OrloStartSafe(), nullptr);
    EXPECT_EQ(OrloStart(), nullptr);
    const std::string safe = "  Varnelink OrloStartSafe   ", exact = "  Varnelink OrloStart   ";
    const std::string flags = "Database switch flags=2, Resource name=KEL_VARNELINK, ";
    EXPECT_EQ(traceLines(dir.path() + "/t"),
              (Lines{golden(1, "{ Varnelink OrloStartSafe "),
                     golden(1, safe + flags + "number of calls this process=1"),
                     golden(1, "} Varnelink OrloStartSafe "), golden(1, "{ Varnelink OrloStart "),
                     golden(1, exact + flags + "number of calls this process=2"),
                     golden(1, exact + "Refused: this process already runs the switch of the "
                                       "other start function"),
                     golden(1, "} Varnelink OrloStart ")}));
}

TEST(XaEntries, EachEntryMapsTheListenersAnswerByItsOwnRow) {
    // entry, its request, the listeners' answer, the result (XAER_NOTA: the rollback trace)
    const std::tuple<int (*)(XID *, int, long), int, int, int> cases[] = {
        {xa_prepare_entry_jms, 0x2002, XAER_RMERR, XAER_RMERR},
        {xa_commit_entry_jms, 0x2003, XAER_RMERR, XAER_RMFAIL},
        {xa_commit_entry_jms, 0x2003, XAER_PROTO, XAER_RMFAIL},
        {xa_rollback_entry_jms, 0x2004, XAER_RMERR, XAER_RMFAIL},
        {xa_rollback_entry_jms, 0x2004, XAER_INVAL, XAER_INVAL},
        {xa_forget_entry_jms, 0x2008, XAER_RMERR, XAER_RMFAIL}};
    XID xid{};
    intClearedConnectionPool_jms = 1;
    for (const auto &[entry, request, answered, reported] : cases) {
        SCOPED_TRACE(std::to_string(request) + " answered " + std::to_string(answered));
        scriptedAnswer = answered;
        sent.clear();
        EXPECT_EQ(entry(&xid, 1, TMNOFLAGS), reported);
        EXPECT_EQ(sent, std::vector{request});
    }
    EXPECT_EQ(flBrokerHasDeployed_jms, 1);  // set by the prepare, which resets the flag below
    EXPECT_EQ(intClearedConnectionPool_jms, 0);
}

TEST(XaEntries, RollbackTracesItsLaterLinesUnderTheLiteralItAlwaysHad) {
    TempDir dir;
    freezeTraceColumns();
    enableVarnelinkTrace(dir.path() + "/t");
    XID xid{7, 0, 0, {}};
    scriptedAnswer = XAER_NOTA;
    EXPECT_EQ(xa_rollback_entry_jms(&xid, 2, TMNOFLAGS), XA_OK);
    const std::string later = "  Varnelink xa_rollack_entry_jms   ";
    EXPECT_EQ(
        traceLines(dir.path() + "/t"),
        (Lines{golden(1, "{ Varnelink xa_rollback_entry_jms   rmid=2 "),
               golden(1, later + "flags==               0"), golden(1, later + "Xid Format : 7"),
               golden(1, later + "Xid gtrid length=0  data="),
               golden(1, later + "Xid bqual length=0  data="),
               golden(1, later + " sendXARollback_jms returned -4"),
               golden(1, "        Return code = XA_OK         "),
               golden(1, "} Varnelink xa_rollack_entry_jms    rc =  0")}));
}

// Without a listener, recover looks the rmid's open string up in the open table, up to the
// first empty record; a string that fills its record is traced without running past it.
TEST(XaEntries, RecoverWithoutListenersTracesTheOpenStringStoredForItsRmid) {
    if (const std::string why = enterPrivateOrlom(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    open(std::string(300, 'o'), 1);
    open("qm=QM2", 2);
    TempDir dir;
    freezeTraceColumns();
    enableVarnelinkTrace(dir.path() + "/t");
    for (int rmid : {1, 2, 3}) {
        iIndent = 0;  // the failed attach of the registry leaves the depth raised
        EXPECT_EQ(xa_recover_entry_jms(nullptr, 0, rmid, TMNOFLAGS), XA_OK);
    }
    const Lines lines = traceLines(dir.path() + "/t");
    for (const std::string &text : {" found openstring " + std::string(256, 'o') + " for rmid 1",
                                    std::string(" found openstring qm=QM2 for rmid 2"),
                                    std::string(" no openstring data for rmid 3")}) {
        const std::string want = golden(5, "  Varnelink xa_recover_entry_jms   " + text);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), want), 1) << text;
    }
}

}  // namespace
