// The companion's open, start and end against a real PostgreSQL: open refusals and what they
// leave, and the XA association of threads with branches for each flag and branch state.
#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>
#include <thread>

#include "cluster.h"

namespace xajms::test {
namespace {

constexpr int kRollback = 0x2004;

class EgAssociation : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = enterPostgresTest();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        db.emplace("association");
    }
    int open(const std::string &text, int rmid = 1, long flags = TMNOFLAGS) {
        std::string copy = text;
        return companion().jniXAJMSOpen(copy.data(), rmid, flags);
    }
    std::string openString(const std::string &eg = "EGA") {
        return "eg=" + eg + " conninfo='" + db->conninfo + "' log=" + logPath;
    }

    std::optional<Database> db;
    const std::string logPath = "/var/orlom/eg.log";
};

TEST_F(EgAssociation, OpenRefusalsAreLoggedAndLeaveNothingOpen) {
    const std::string pid = "xajms-eg[" + std::to_string(getpid()) + "]: ";
    const struct {
        std::string text;
        int rmid;
        long flags;
        int code;
        std::string line;  // the line logged, up to its end or to libpq's own words
        bool registered;   // the listener's row, afterwards
    } cases[] = {
        {"eg=EGA conninfo='host=/nonexistent dbname=x' log=" + logPath, 1, TMNOFLAGS, XAER_RMERR,
         "rmid 1: cannot reach the database: ", false},
        {openString(), 1, TMASYNC, XAER_INVAL, "open of rmid 1 refused: flags not supported",
         false},
        {openString(), 1, TMNOFLAGS, XA_OK, "", true},
        {openString(), 1, TMNOFLAGS, XA_OK, "", true},  // again: nothing changes
        {openString("EGB"), 2, TMNOFLAGS, XAER_INVAL,
         "open of rmid 2 refused: this process serves execution group EGA, not EGB", true},
        {"eg=EGA conninfo='dbname=other' log=" + logPath, 1, TMNOFLAGS, XAER_INVAL,
         "open of rmid 1 refused: the rmid is open on another database", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        std::remove(logPath.c_str());
        EXPECT_EQ(open(c.text, c.rmid, c.flags), c.code);
        std::ifstream log(logPath);
        std::string line;
        std::getline(log, line);
        EXPECT_EQ(line.substr(0, std::min(line.size(), pid.size() + c.line.size())),
                  c.line.empty() ? "" : pid + c.line);
        EXPECT_EQ(registeredPort(getpid()) != 0, c.registered);
    }
    // A malformed string has no log to name: standard error alone says why.
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(open("eg=EGA conninfo='x"), XAER_INVAL);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              pid + "open of rmid 1 refused: bad value for \"conninfo\"\n");
    // One connection was opened, by the successful open, and none by the refusals.
    EXPECT_EQ(db->count("SELECT count(*) FROM pg_stat_activity WHERE datname = '" + db->name +
                        "' AND pid <> pg_backend_pid()"),
              1);
}

// One step of a case: an entry on an XID of the case, on this thread or on another one.
struct Step {
    bool start;
    int xid;
    long flags;
    int code;
    bool otherThread = false;
};

TEST_F(EgAssociation, StartAndEndFollowXaForEachFlagAndState) {
    ASSERT_EQ(open(openString()), XA_OK);
    const int port = registeredPort(getpid());
    const struct {
        const char *name;
        std::vector<Step> steps;
    } cases[] = {
        {"known branch",
         {{true, 0, TMNOFLAGS, XA_OK},
          {true, 0, TMNOFLAGS, XAER_PROTO},
          {false, 0, TMSUCCESS, XA_OK},
          {true, 0, TMNOFLAGS, XAER_DUPID}}},
        {"unknown branch",
         {{true, 0, TMJOIN, XAER_NOTA},
          {true, 0, TMRESUME, XAER_NOTA},
          {false, 0, TMSUCCESS, XAER_NOTA}}},
        {"suspend and resume",
         {{true, 0, TMNOFLAGS, XA_OK},
          {false, 0, TMSUSPEND, XA_OK},
          {true, 0, TMJOIN, XAER_PROTO},
          {true, 0, TMRESUME, XA_OK, true},
          {false, 0, TMSUCCESS, XAER_PROTO},
          {true, 1, TMNOFLAGS, XA_OK}}},
        {"suspended ended elsewhere",
         {{true, 0, TMNOFLAGS, XA_OK},
          {false, 0, TMSUSPEND, XA_OK},
          {false, 0, TMSUCCESS, XA_OK, true},
          {true, 0, TMRESUME, XAER_PROTO}}},
        {"join",
         {{true, 0, TMNOFLAGS, XA_OK},
          {false, 0, TMSUCCESS, XA_OK},
          {true, 0, TMJOIN, XA_OK, true},
          {true, 0, TMJOIN, XAER_PROTO},
          {false, 0, TMSUCCESS, XAER_PROTO}}},
        {"rollback-only",
         {{true, 0, TMNOFLAGS, XA_OK},
          {false, 0, TMFAIL, XA_OK},
          {true, 0, TMJOIN, XA_RBROLLBACK}}},
        {"bad flags",
         {{true, 0, TMJOIN | TMRESUME, XAER_INVAL},
          {true, 0, TMNOWAIT, XAER_INVAL},
          {true, 0, TMNOFLAGS, XA_OK},
          {false, 0, TMSUSPEND | TMMIGRATE, XAER_INVAL},
          {false, 0, TMSUCCESS | TMFAIL, XAER_INVAL},
          {false, 0, TMSUCCESS, XA_OK}}},
        {"rmid not open", {{true, 0, TMNOFLAGS, XAER_PROTO}}},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        XID xids[2] = {testXid(++n), testXid(++n)};
        const int rmid = std::string_view(c.name) == "rmid not open" ? 2 : 1;
        for (const Step &s : c.steps) {
            int rc = 0;
            auto call = [&] {
                rc = s.start ? companion().jniXAJMSStart(&xids[s.xid], rmid, s.flags)
                             : companion().jniXAJMSEnd(&xids[s.xid], rmid, s.flags);
            };
            s.otherThread ? std::thread(call).join() : call();
            EXPECT_EQ(rc, s.code) << (s.start ? "start " : "end ") << s.flags;
        }
        for (XID &x : xids) {
            companion().jniXAJMSEnd(&x, 1, TMSUCCESS);
            ask(port, kRollback, x, 1, TMNOFLAGS);
        }
    }
    EXPECT_EQ(companion().jniXAJMSStart(nullptr, 1, TMNOFLAGS), XAER_INVAL);
    XID null = testXid(99);
    null.formatID = -1;
    EXPECT_EQ(companion().jniXAJMSStart(&null, 1, TMNOFLAGS), XAER_INVAL);
}

// The branch's connection is the thread's while associated, and the branch keeps it after
// end: the next branch of the thread works on another one, and a failed statement makes the
// end vote rollback.
TEST_F(EgAssociation, EndedBranchKeepsItsConnectionAndItsFailure) {
    ASSERT_EQ(open(openString()), XA_OK);
    XID first = testXid(1), second = testXid(2);
    ASSERT_EQ(companion().jniXAJMSStart(&first, 1, TMNOFLAGS), XA_OK);
    PGconn *pg = xajms_eg_connection(1);
    ASSERT_NE(pg, nullptr);
    PQclear(PQexec(pg, "SELECT 1/0"));
    EXPECT_EQ(companion().jniXAJMSEnd(&first, 1, TMSUCCESS), XA_RBROLLBACK);
    EXPECT_EQ(xajms_eg_connection(1), nullptr);
    ASSERT_EQ(companion().jniXAJMSStart(&second, 1, TMNOFLAGS), XA_OK);
    EXPECT_NE(xajms_eg_connection(1), pg);
    EXPECT_EQ(companion().jniXAJMSEnd(&second, 1, TMSUCCESS), XA_OK);
}

}  // namespace
}  // namespace xajms::test
