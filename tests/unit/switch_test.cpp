// The XA entries: the open table of a queue-manager process, the JNI bridge of a broker
// process, and how the completion and recovery entries map what the listeners answered. The
// senders are replaced in this executable, so each entry meets exactly the answer scripted.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/pellux.h"
#include "support/scripted_listener.h"
#include "support/trace_file.h"

namespace {

int scriptedAnswer = 0;
std::vector<int> sent;  // the request codes of the sender calls

int answer(int request) {
    sent.push_back(request);
    return scriptedAnswer;
}

}  // namespace

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
int sendBrokerXARecover_jms(XID *, long, int, long) {
    return answer(0x2006);
}
}

namespace {

using namespace xajms::test;
using Lines = std::vector<std::string>;

int open(std::string text, int rmid) {
    return xa_open_entry_jms(text.data(), rmid, TMNOFLAGS);
}

// The first open and the last close each empty the pool of every connection it holds.
TEST(OpenTable, FirstStringPerRmidIsKeptAndOpensNestByCount) {
    occupyDescriptorZero();
    const SocketSlot &slot = processConnectionPool_jms.row[0].slot[0];
    poolPeer(4000, {});
    EXPECT_EQ(open("queue=A", 5) + open("queue=B", 5) + open("queue=B", 6), XA_OK);
    EXPECT_EQ(slot.sockfd, 0);
    ASSERT_NE(pRmidOpenstrTable, nullptr);
    EXPECT_EQ(pRmidOpenstrTable[0].rmid, 5U);
    EXPECT_STREQ(pRmidOpenstrTable[0].openstring, "queue=A");
    EXPECT_EQ(pRmidOpenstrTable[1].rmid, 6U);
    EXPECT_EQ(pRmidOpenstrTable[2].rmid, 999U);
    EXPECT_STREQ(pRmidOpenstrTable[2].openstring, " ");
    for (int left : {2, 1, 0, 0}) {  // the last close has no open
        poolPeer(4000, {});
        EXPECT_EQ(xa_close_entry_jms(nullptr, 5, TMNOFLAGS), XA_OK);
        EXPECT_EQ(intXAOpen_jms, left);
        EXPECT_EQ(pRmidOpenstrTable != nullptr, left > 0);
        EXPECT_EQ(slot.sockfd == 0, left == 0);
    }
}

// 500 records: a 501st rmid is refused, known rmids still open; a long string is stored as
// 256 characters without terminator, a null one as the empty string.
TEST(OpenTable, FullTableRefusesA501stRmidAndStringsStayInTheirRecord) {
    EXPECT_EQ(open(std::string(300, 'o'), 0), XA_OK);
    EXPECT_EQ(std::string(pRmidOpenstrTable[0].openstring, 256), std::string(256, 'o'));
    EXPECT_EQ(pRmidOpenstrTable[1].rmid, 999U);  // the next record is untouched
    EXPECT_EQ(xa_open_entry_jms(nullptr, 1, TMNOFLAGS), XA_OK);
    EXPECT_STREQ(pRmidOpenstrTable[1].openstring, "");
    for (int rmid = 2; rmid < 500; ++rmid) {
        ASSERT_EQ(open("o", rmid), XA_OK);
    }
    EXPECT_EQ(open("o", 500), XAER_RMERR);
    EXPECT_EQ(open("o", 499), XA_OK);
    EXPECT_EQ(pRmidOpenstrTable[499].rmid, 499U);
}

TEST(OpenTable, TableThatCannotBeAllocatedRefusesTheOpen) {
    if (!allocationFaultsAvailable()) {
        GTEST_SKIP() << "allocation faults need the allocator that AddressSanitizer replaces";
    }
    failAllocation(1);
    EXPECT_EQ(open("o", 1), XAER_RMERR);
    failAllocation(0);
    EXPECT_EQ(pRmidOpenstrTable, nullptr);
    EXPECT_EQ(intXAOpen_jms, 1);
}

class JniBridge : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(pellux.loaded()); }
    std::vector<int> slots() const {
        std::vector<int> called;
        for (const PelluxCall &call : pellux.calls()) {
            called.push_back(call.slot);
        }
        return called;
    }
    Pellux pellux;
    XID xid{};
};

TEST_F(JniBridge, BrokerProcessOpensInJava) {
    ZJavaInitSwitchJMS();
    // what Java answers, whether the broker has deployed, the result
    for (const auto &[java, deployed, result] :
         {std::tuple{0, 0, XA_OK}, {XAER_RMERR, 0, XAER_RMERR}, {XAER_RMERR, 1, XA_OK}}) {
        pellux.answer(java, 0, 0);
        flBrokerHasDeployed_jms = deployed;
        EXPECT_EQ(open("broker=B1", 3), result);
        ASSERT_EQ(pellux.calls().size(), 1U);
        EXPECT_STREQ(pellux.calls()[0].openstring, "broker=B1");
    }
    EXPECT_EQ(pRmidOpenstrTable, nullptr);
}

TEST_F(JniBridge, StartReplaysTheStoredOpenOnceAndFollowsJavaUnlessDeployed) {
    // stored open, Java's open and start answers, deployed, result, slots called, switch kept
    const std::tuple<bool, int, int, int, int, std::vector<int>, int> cases[] = {
        {false, 0, 0, 0, XA_OK, {2, 2}, 0},
        {true, -3, 0, 0, XA_OK, {0, 2, 0, 2}, 0},  // a failed deferred open is tried again
        {true, 0, 0, 0, XA_OK, {0, 2, 2}, 1},
        {true, 0, XAER_PROTO, 0, XAER_PROTO, {0, 2, 2}, 1},
        {true, 0, XAER_PROTO, 1, XA_OK, {0, 2, 2}, 1},
    };
    for (const auto &[stored, openRc, startRc, deployed, result, called, gotSwitch] : cases) {
        SCOPED_TRACE(testing::PrintToString(called));
        std::free(pRmidOpenstrTable);
        pRmidOpenstrTable = nullptr;
        flGotJNISwitch_jms = 0;
        flBrokerInit_jms = 0;
        if (stored) {
            open("other", 3);
            open("queue=Q1", 7);
        }
        flBrokerHasDeployed_jms = deployed;
        pellux.answer(openRc, startRc, 0);
        EXPECT_EQ(xa_start_entry_jms(&xid, 7, TMNOFLAGS), result);
        EXPECT_EQ(xa_start_entry_jms(&xid, 7, TMNOFLAGS), result);
        EXPECT_EQ(slots(), called);
        EXPECT_EQ(flGotJNISwitch_jms, gotSwitch);
        EXPECT_STREQ(pellux.calls()[0].openstring, stored ? "queue=Q1" : "");
        EXPECT_EQ(pellux.calls()[0].rmid, 7);
    }
    for (int javaRc : {0, 5, -3}) {
        pellux.answer(0, 0, javaRc);
        EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), javaRc == 0 ? XA_OK : XA_RBROLLBACK);
    }
}

TEST_F(JniBridge, UnreachableJavaIsReportedWithoutCallingThroughNull) {
    const DlopenScript cases[] = {
        [](const char *, int) -> void * { return nullptr; },                  // library absent
        [](const char *, int mode) { return realDlopen("libc.so.6", mode); }  // no entry point
    };
    for (const DlopenScript &load : cases) {
        setDlopen(load);
        EXPECT_EQ(xa_start_entry_jms(&xid, 1, TMNOFLAGS), XAER_RMERR);
        EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), XA_OK);
        EXPECT_EQ(pJNI_Switch, nullptr);
        EXPECT_TRUE(pellux.calls().empty());
    }
    ZJavaInitSwitchJMS();
    EXPECT_EQ(open("o", 3), XAER_RMERR);
    clearScripts();
}

TEST_F(JniBridge, NullSlotsOfTheTableAreTakenAsJavaUnreachable) {
    JNISwitchJMS empty{};
    pJNI_Switch = &empty;
    flGotJNISwitch_jms = 1;
    EXPECT_EQ(xa_start_entry_jms(&xid, 1, TMNOFLAGS), XAER_RMERR);
    EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), XA_OK);
    ZJavaInitSwitchJMS();
    EXPECT_EQ(open("o", 1), XAER_RMERR);
    pJNI_Switch = nullptr;
}

TEST_F(JniBridge, UnterminatedOpenStringReachesJavaCutAt256) {
    open(std::string(300, 'o'), 7);
    xa_start_entry_jms(&xid, 7, TMNOFLAGS);
    ASSERT_FALSE(pellux.calls().empty());
    EXPECT_EQ(std::string(pellux.calls()[0].openstring), std::string(256, 'o'));
}

TEST_F(JniBridge, DeferredStartIsTracedStepByStep) {
    open("qm", 7);
    TempDir dir;
    freezeTraceColumns();
    setenv("XAJMS_TRACEFILE", (dir.path() + "/t").c_str(), 1);
    xid.formatID = 1;
    pellux.answer(0, 0, 0);

    xa_start_entry_jms(&xid, 7, TMJOIN);

    const auto data = [](int pad, const std::string &text) {
        return golden(pad, (pad == 1 ? "  Varnelink xa_start_entry_jms "
                                     : "  Varnelink GetJniSwitch_jms    ") +
                               text);
    };
    EXPECT_EQ(
        traceLines(dir.path() + "/t"),
        (Lines{
            golden(1, "{ Varnelink xa_start_entry_jms   rmid=7 "),
            data(1, "  flags==          200000"),
            data(1, " flGotJNISwitch =    flags==               0"),
            golden(3, "{ Varnelink GetJniSwitch_jms "), data(3, "JMS JNI LoadLibrary successful"),
            data(3, "got JMS JNI library entry point"), golden(3, "} Varnelink GetJniSwitch_jms "),
            data(1, "  Retrieving Openstring stored by xa_open_entry_jms"),
            data(1, "  found rmid in openstrings and calling jniXAJMSOpen"),
            data(1, "  return code from jniXAJMSOpen = 0"), data(1, "  Broker JVM is available"),
            data(1, "  return code from jniXAJMSStart = 0"),
            golden(1, "        Return code = XA_OK         "),
            golden(1, "} Varnelink xa_start_entry_jms   jniXAJMSStart_jms returned 0")}));
}

using Entry = int (*)(XID *, int, long);

TEST(XaEntries, EachEntryMapsTheListenersAnswerByItsOwnRow) {
    // entry, its request, what the listeners answered, what the entry reports
    const std::tuple<Entry, int, int, int> cases[] = {
        {xa_prepare_entry_jms, 0x2002, XAER_RMERR, XAER_RMERR},
        {xa_prepare_entry_jms, 0x2002, XAER_NOTA, XA_OK},
        {xa_prepare_entry_jms, 0x2002, XAER_PROTO, XAER_RMFAIL},
        {xa_prepare_entry_jms, 0x2002, XA_RDONLY, XA_RDONLY},
        {xa_prepare_entry_jms, 0x2002, XA_RBTIMEOUT, XA_RBTIMEOUT},
        {xa_commit_entry_jms, 0x2003, XAER_RMERR, XAER_RMFAIL},
        {xa_commit_entry_jms, 0x2003, XAER_NOTA, XA_OK},
        {xa_commit_entry_jms, 0x2003, XAER_PROTO, XAER_RMFAIL},
        {xa_commit_entry_jms, 0x2003, XA_HEURMIX, XA_HEURMIX},
        {xa_rollback_entry_jms, 0x2004, XAER_RMERR, XAER_RMFAIL},
        {xa_rollback_entry_jms, 0x2004, XAER_NOTA, XA_OK},
        {xa_rollback_entry_jms, 0x2004, XAER_INVAL, XAER_INVAL},
        {xa_forget_entry_jms, 0x2008, XAER_RMERR, XAER_RMFAIL},
        {xa_forget_entry_jms, 0x2008, XAER_NOTA, XA_OK},
        {xa_forget_entry_jms, 0x2008, XAER_PROTO, XAER_RMFAIL},
    };
    XID xid{};
    intClearedConnectionPool_jms = 1;
    for (const auto &[entry, request, answered, reported] : cases) {
        SCOPED_TRACE(std::to_string(request) + " answered " + std::to_string(answered));
        scriptedAnswer = answered;
        sent.clear();
        EXPECT_EQ(entry(&xid, 1, TMNOFLAGS), reported);
        EXPECT_EQ(sent, std::vector{request});
    }
    EXPECT_EQ(flBrokerHasDeployed_jms, 1);  // set by the prepares, which reset the flag below
    EXPECT_EQ(intClearedConnectionPool_jms, 0);
    int handle = 0;
    EXPECT_EQ(xa_complete_entry_jms(&handle, &handle, 1, TMNOFLAGS), XAER_RMFAIL);
}

TEST(XaEntries, RollbackTracesItsLaterLinesUnderTheLiteralItAlwaysHad) {
    TempDir dir;
    freezeTraceColumns();
    enableVarnelinkTrace(dir.path() + "/t");
    XID xid{};
    xid.formatID = 7;
    scriptedAnswer = XAER_NOTA;
    xa_rollback_entry_jms(&xid, 2, TMNOFLAGS);
    const auto data = [](const std::string &text) {
        return golden(1, "  Varnelink xa_rollack_entry_jms   " + text);
    };
    EXPECT_EQ(traceLines(dir.path() + "/t"),
              (Lines{golden(1, "{ Varnelink xa_rollback_entry_jms   rmid=2 "),
                     data("flags==               0"), data("Xid Format : 7"),
                     data("Xid gtrid length=0  data="), data("Xid bqual length=0  data="),
                     data(" sendXARollback_jms returned -4"),
                     golden(1, "        Return code = XA_OK         "),
                     golden(1, "} Varnelink xa_rollack_entry_jms    rc =  0")}));
}

// Without a listener, recover looks the rmid's open string up in the open table, up to the
// first empty record; a string that fills its record is traced without running past it.
TEST(XaEntries, RecoverWithoutListenersTracesTheOpenStringStoredForItsRmid) {
    if (const std::string why = enterPrivateOrlom(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    writeRegistry({});
    GetSharedMemory_jms();  // attached before: each case traces at the same depth
    const std::string full(300, 'o');
    open(full, 1);
    open("qm=QM2", 2);
    TempDir dir;
    freezeTraceColumns();
    const std::pair<int, std::string> cases[] = {
        {1, " found openstring " + full.substr(0, 256) + " for rmid 1"},
        {2, " found openstring qm=QM2 for rmid 2"},
        {3, " no openstring data for rmid 3"},
    };
    for (const auto &[rmid, text] : cases) {
        SCOPED_TRACE(rmid);
        enableVarnelinkTrace(dir.path() + "/t");
        iIndent = 0;
        sent.clear();
        EXPECT_EQ(xa_recover_entry_jms(nullptr, 0, rmid, TMNOFLAGS), XA_OK);
        EXPECT_TRUE(sent.empty());
        const Lines lines = traceLines(dir.path() + "/t");
        const std::string want = golden(5, "  Varnelink xa_recover_entry_jms   " + text);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), want), 1);
    }
}

}  // namespace
