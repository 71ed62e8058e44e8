// The JNI bridge of a broker process: the deferred open, start and end through the table
// that the companion library hands out, and what happens when Java cannot be reached.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/pellux.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;

class JniBridge : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(pellux.loaded()); }
    void TearDown() override { std::free(pRmidOpenstrTable); }

    // An open table as the queue-manager side of the process left it.
    void storeOpenString(uint32_t rmid, const std::string &openstring) {
        if (pRmidOpenstrTable == nullptr) {
            pRmidOpenstrTable =
                static_cast<RmidOpenstrEntry *>(std::calloc(500, sizeof(RmidOpenstrEntry)));
            for (int i = 0; i < 500; ++i) {
                pRmidOpenstrTable[i].rmid = 999;
                std::strcpy(pRmidOpenstrTable[i].openstring, " ");
            }
        }
        int i = 0;
        while (pRmidOpenstrTable[i].rmid != 999) {
            ++i;
        }
        pRmidOpenstrTable[i].rmid = rmid;
        std::memcpy(pRmidOpenstrTable[i].openstring, openstring.data(),
                    std::min<size_t>(openstring.size(), 256));
    }
    std::vector<int> slots() const {
        std::vector<int> called;
        for (const PelluxCall &call : pellux.calls()) {
            called.push_back(call.slot);
        }
        return called;
    }

    xajms::test::Pellux pellux;
    XID xid{};
};

TEST_F(JniBridge, StartReplaysTheStoredOpenOnceAndThenCallsStartOnly) {
    storeOpenString(3, "other");
    storeOpenString(7, "queue=Q1");
    pellux.answer(0, 0, 0);

    EXPECT_EQ(xa_start_entry_jms(&xid, 7, TMNOFLAGS), XA_OK);
    const int loads = xajms::test::dlopenCalls();
    EXPECT_EQ(xa_start_entry_jms(&xid, 7, TMNOFLAGS), XA_OK);

    EXPECT_EQ(slots(), (std::vector<int>{0, 2, 2}));
    EXPECT_STREQ(pellux.calls()[0].openstring, "queue=Q1");
    EXPECT_EQ(pellux.calls()[0].rmid, 7);
    EXPECT_EQ(flGotJNISwitch_jms, 1);
    EXPECT_EQ(xajms::test::dlopenCalls(), loads);  // no load once the open has succeeded
}

TEST_F(JniBridge, StartResultFollowsJavaUnlessTheBrokerHasDeployed) {
    struct Case {
        const char *what;
        bool stored;
        int openRc;
        int startRc;
        int deployed;
        int result;
        std::vector<int> slots;
        int gotSwitch;
    } cases[] = {
        {"no stored open", false, 0, 0, 0, XA_OK, {2}, 0},
        {"failed deferred open", true, -3, 0, 0, XA_OK, {0, 2}, 0},
        {"java refuses", true, 0, XAER_PROTO, 0, XAER_PROTO, {0, 2}, 1},
        {"refusal after deploy", true, 0, XAER_PROTO, 1, XA_OK, {0, 2}, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::free(pRmidOpenstrTable);
        pRmidOpenstrTable = nullptr;
        flGotJNISwitch_jms = 0;
        flBrokerHasDeployed_jms = c.deployed;
        if (c.stored) {
            storeOpenString(7, "s");
        }
        pellux.answer(c.openRc, c.startRc, 0);
        EXPECT_EQ(xa_start_entry_jms(&xid, 7, TMNOFLAGS), c.result);
        EXPECT_EQ(slots(), c.slots);
        EXPECT_EQ(flGotJNISwitch_jms, c.gotSwitch);
    }
}

TEST_F(JniBridge, EndReportsAnyJavaFailureAsRollback) {
    for (int javaRc : {0, 5, -3}) {
        pellux.answer(0, 0, javaRc);
        EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), javaRc == 0 ? XA_OK : XA_RBROLLBACK);
    }
}

TEST_F(JniBridge, UnreachableJavaIsReportedWithoutCallingThroughNull) {
    struct Case {
        const char *what;
        xajms::test::DlopenScript load;
    } cases[] = {
        {"library absent", [](const char *, int) -> void * { return nullptr; }},
        {"entry point absent",
         [](const char *, int mode) { return xajms::test::realDlopen("libc.so.6", mode); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        xajms::test::setDlopen(c.load);
        EXPECT_EQ(xa_start_entry_jms(&xid, 1, TMNOFLAGS), XAER_RMERR);
        EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), XA_OK);
        EXPECT_EQ(pJNI_Switch, nullptr);
        EXPECT_TRUE(pellux.calls().empty());
    }
}

TEST_F(JniBridge, NullSlotsOfTheTableAreTakenAsJavaUnreachable) {
    JNISwitchJMS empty{};
    pJNI_Switch = &empty;
    flGotJNISwitch_jms = 1;
    std::string open = "o";
    EXPECT_EQ(xa_start_entry_jms(&xid, 1, TMNOFLAGS), XAER_RMERR);
    EXPECT_EQ(xa_end_entry_jms(&xid, 1, TMSUCCESS), XA_OK);
    ZJavaInitSwitchJMS();
    EXPECT_EQ(xa_open_entry_jms(open.data(), 1, TMNOFLAGS), XAER_RMERR);
    pJNI_Switch = nullptr;
}

TEST_F(JniBridge, UnterminatedOpenStringReachesJavaCutAt256) {
    storeOpenString(7, std::string(300, 'o'));
    xa_start_entry_jms(&xid, 7, TMNOFLAGS);
    ASSERT_FALSE(pellux.calls().empty());
    EXPECT_EQ(std::string(pellux.calls()[0].openstring), std::string(256, 'o'));
}

TEST_F(JniBridge, DeferredStartIsTracedStepByStep) {
    xajms::test::TempDir dir;
    xajms::test::freezeTraceColumns();
    const std::string prefix = dir.path() + "/t";
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    storeOpenString(7, "qm");
    xid.formatID = 1;
    pellux.answer(0, 0, 0);

    xa_start_entry_jms(&xid, 7, TMJOIN);

    EXPECT_EQ(
        xajms::test::traceLines(prefix),
        (std::vector<std::string>{
            golden(1, "{ Varnelink xa_start_entry_jms   rmid=7 "),
            golden(1, "  Varnelink xa_start_entry_jms   flags==          200000"),
            golden(1,
                   "  Varnelink xa_start_entry_jms  flGotJNISwitch =    flags==               0"),
            golden(3, "{ Varnelink GetJniSwitch_jms "),
            golden(3, "  Varnelink GetJniSwitch_jms    JMS JNI LoadLibrary successful"),
            golden(3, "  Varnelink GetJniSwitch_jms    got JMS JNI library entry point"),
            golden(3, "} Varnelink GetJniSwitch_jms "),
            golden(1,
                   "  Varnelink xa_start_entry_jms   Retrieving Openstring stored by "
                   "xa_open_entry_jms"),
            golden(1,
                   "  Varnelink xa_start_entry_jms   found rmid in openstrings and "
                   "calling jniXAJMSOpen"),
            golden(1, "  Varnelink xa_start_entry_jms   return code from jniXAJMSOpen = 0"),
            golden(1, "  Varnelink xa_start_entry_jms   Broker JVM is available"),
            golden(1, "  Varnelink xa_start_entry_jms   return code from jniXAJMSStart = 0"),
            golden(1, "        Return code = XA_OK         "),
            golden(1, "} Varnelink xa_start_entry_jms   jniXAJMSStart_jms returned 0"),
        }));
}

}  // namespace
