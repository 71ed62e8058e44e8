// The completion and recovery entries and the switch record: how each entry maps what the
// listeners answered, and what OrloStart hands the coordinator. The senders are replaced in
// this executable, so each entry meets exactly the answer a case scripts.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/orlom.h"
#include "support/trace_file.h"

namespace {

int scriptedAnswer = 0;
int sends = 0;
int lastRequest = 0;

int answer(int request) {
    sends += 1;
    lastRequest = request;
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

using xajms::test::golden;
using Entry = int (*)(XID *, int, long);

TEST(XaEntries, EachEntryMapsTheListenersAnswerByItsOwnRow) {
    struct Case {
        const char *entry;
        Entry call;
        int request;
        int answered;
        int reported;
    } cases[] = {
        {"prepare", xa_prepare_entry_jms, 0x2002, XAER_RMERR, XAER_RMERR},
        {"prepare", xa_prepare_entry_jms, 0x2002, XAER_NOTA, XA_OK},
        {"prepare", xa_prepare_entry_jms, 0x2002, XAER_PROTO, XAER_RMFAIL},
        {"prepare", xa_prepare_entry_jms, 0x2002, XA_RDONLY, XA_RDONLY},
        {"prepare", xa_prepare_entry_jms, 0x2002, XA_RBTIMEOUT, XA_RBTIMEOUT},
        {"commit", xa_commit_entry_jms, 0x2003, XAER_RMERR, XAER_RMFAIL},
        {"commit", xa_commit_entry_jms, 0x2003, XAER_NOTA, XA_OK},
        {"commit", xa_commit_entry_jms, 0x2003, XAER_PROTO, XAER_RMFAIL},
        {"commit", xa_commit_entry_jms, 0x2003, XA_HEURMIX, XA_HEURMIX},
        {"rollback", xa_rollback_entry_jms, 0x2004, XAER_RMERR, XAER_RMFAIL},
        {"rollback", xa_rollback_entry_jms, 0x2004, XAER_NOTA, XA_OK},
        {"rollback", xa_rollback_entry_jms, 0x2004, XAER_INVAL, XAER_INVAL},
        {"forget", xa_forget_entry_jms, 0x2008, XAER_RMERR, XAER_RMFAIL},
        {"forget", xa_forget_entry_jms, 0x2008, XAER_NOTA, XA_OK},
        {"forget", xa_forget_entry_jms, 0x2008, XAER_PROTO, XAER_RMFAIL},
    };
    XID xid{};
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.entry) + " answered " + std::to_string(c.answered));
        scriptedAnswer = c.answered;
        sends = 0;
        EXPECT_EQ(c.call(&xid, 1, TMNOFLAGS), c.reported);
        EXPECT_EQ(sends, 1);
        EXPECT_EQ(lastRequest, c.request);
    }
}

TEST(XaEntries, PrepareMarksTheBrokerDeployedAndCompleteIsRefused) {
    XID xid{};
    intClearedConnectionPool_jms = 1;
    xa_prepare_entry_jms(&xid, 1, TMNOFLAGS);
    EXPECT_EQ(flBrokerHasDeployed_jms, 1);
    EXPECT_EQ(intClearedConnectionPool_jms, 0);
    int handle = 0;
    int result = 0;
    EXPECT_EQ(xa_complete_entry_jms(&handle, &result, 1, TMNOFLAGS), XAER_RMFAIL);
}

// Writes a formatted registry file with the given (port, mode) rows.
void writeRegistry(std::initializer_list<std::pair<int, int>> rows) {
    std::string file(76040, '\0');
    std::memcpy(file.data(), "/var/orlom/XA_SWITCH_MMF", 25);
    const int count = static_cast<int>(rows.size());
    std::memcpy(file.data() + 36, &count, 4);
    int r = 0;
    for (const auto &[port, mode] : rows) {
        std::memcpy(file.data() + 40 + 152 * r + 8, &port, 4);
        std::memcpy(file.data() + 40 + 152 * r + 12, &mode, 4);
        ++r;
    }
    const int fd = open("/var/orlom/XA_SWITCH_MMF", O_CREAT | O_TRUNC | O_RDWR, 0666);
    ASSERT_EQ(write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
    close(fd);
}

TEST(XaEntries, RecoverAsksTheListenersOnlyWhileABrokerOrPendingRowExistsAndReportsNothing) {
    const std::string why = xajms::test::enterPrivateOrlom();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    struct Case {
        const char *what;
        std::initializer_list<std::pair<int, int>> rows;
        int sends;
    } cases[] = {
        {"no rows", {}, 0},
        {"dead and recovery rows", {{7001, 3}, {7002, 1}}, 0},
        {"a broker row", {{7001, 3}, {7003, 2}}, 1},
        {"a pending row", {{7004, 4}, {7005, 0}}, 1},
    };
    XID xids[4] = {};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        writeRegistry(c.rows);
        sends = 0;
        scriptedAnswer = 3;  // XIDs the listeners reported: never passed on
        EXPECT_EQ(xa_recover_entry_jms(xids, 4, 1, TMSTARTRSCAN), 0);
        EXPECT_EQ(sends, c.sends);
    }
}

TEST(XaEntries, RollbackTracesItsLaterLinesUnderTheLiteralItAlwaysHad) {
    xajms::test::TempDir dir;
    xajms::test::freezeTraceColumns();
    xajms::test::enableVarnelinkTrace(dir.path() + "/t");
    XID xid{};
    xid.formatID = 7;
    scriptedAnswer = XAER_NOTA;
    xa_rollback_entry_jms(&xid, 2, TMNOFLAGS);
    EXPECT_EQ(xajms::test::traceLines(dir.path() + "/t"),
              (std::vector<std::string>{
                  golden(1, "{ Varnelink xa_rollback_entry_jms   rmid=2 "),
                  golden(1, "  Varnelink xa_rollack_entry_jms   flags==               0"),
                  golden(1, "  Varnelink xa_rollack_entry_jms   Xid Format : 7"),
                  golden(1, "  Varnelink xa_rollack_entry_jms   Xid gtrid length=0  data="),
                  golden(1, "  Varnelink xa_rollack_entry_jms   Xid bqual length=0  data="),
                  golden(1, "  Varnelink xa_rollack_entry_jms    sendXARollback_jms returned -4"),
                  golden(1, "        Return code = XA_OK         "),
                  golden(1, "} Varnelink xa_rollack_entry_jms    rc =  0"),
              }));
}

TEST(SwitchRecord, HoldsTheTenEntriesInTheirStandardOrder) {
    const xa_switch_t &s = *OrloStart();
    EXPECT_EQ(&s, &jta_switch_jms);
    EXPECT_STREQ(s.name, "KEL_VARNELINK");
    EXPECT_EQ(s.flags, TMNOMIGRATE);
    EXPECT_EQ(s.version, 0);
    EXPECT_EQ(s.xa_open_entry, xa_open_entry_jms);
    EXPECT_EQ(s.xa_close_entry, xa_close_entry_jms);
    EXPECT_EQ(s.xa_start_entry, xa_start_entry_jms);
    EXPECT_EQ(s.xa_end_entry, xa_end_entry_jms);
    EXPECT_EQ(s.xa_rollback_entry, xa_rollback_entry_jms);
    EXPECT_EQ(s.xa_prepare_entry, xa_prepare_entry_jms);
    EXPECT_EQ(s.xa_commit_entry, xa_commit_entry_jms);
    EXPECT_EQ(s.xa_recover_entry, xa_recover_entry_jms);
    EXPECT_EQ(s.xa_forget_entry, xa_forget_entry_jms);
    EXPECT_EQ(s.xa_complete_entry, xa_complete_entry_jms);
}

TEST(SwitchRecord, OrloStartTakesTheTraceNameOnlyWhenItFits) {
    xajms::test::TempDir dir;
    xajms::test::freezeTraceColumns();
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    const std::string tooLong(487, 'x');
    setenv("XAJMS_TRACEFILE", tooLong.c_str(), 1);
    OrloStart();
    EXPECT_STREQ(vStrTrace_jms, "OFF ");

    const std::string prefix = dir.path() + "/t";
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    setenv("XAJMS_LOCATION", "/opt/pellux/lib", 1);
    OrloStart();
    EXPECT_STREQ(vStrTrace_jms, "ON");
    EXPECT_EQ(vStrTraceFile_jms, prefix);
    EXPECT_EQ(libpath, std::getenv("XAJMS_LOCATION"));
    EXPECT_EQ(iOrloStart_jms, 2);
    EXPECT_EQ(xajms::test::traceLines(prefix),
              (std::vector<std::string>{
                  golden(1, "{ Varnelink OrloStart "),
                  golden(1,
                         "  Varnelink OrloStart   Database switch flags=2, Resource "
                         "name=KEL_VARNELINK, number of calls this process=2"),
                  golden(1, "  Varnelink OrloStart   Library Path: /opt/pellux/lib"),
                  golden(1, "} Varnelink OrloStart "),
              }));
}

}  // namespace
