// The execution group's listener against a real PostgreSQL: every completion request on a
// branch in each state, the code it answers and what it leaves in the database; and the
// listener's registry row, its close and its handling of requests that are not the library's.
#include <gtest/gtest.h>

#include <unistd.h>

#include "cluster.h"
#include "protocol/protocol.h"

namespace xajms::test {
namespace {

constexpr int kPrepare = 0x2002, kCommit = 0x2003, kRollback = 0x2004, kForget = 0x2008;

// The state a case puts its branch in before the request.
// The last two: a request already answered, retried (its answer was lost).
enum class State {
    associated,
    ended,
    readOnly,
    violating,
    failed,
    prepared,
    unknown,
    committedOnePhase,
    preparedReadOnly
};

class EgOutcomes : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = enterPostgresTest();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        db.emplace("outcomes");
        std::string open = "eg=EGT conninfo='" + db->conninfo + "'";
        ASSERT_EQ(companion().jniXAJMSOpen(open.data(), 1, TMNOFLAGS), XA_OK);
        port = registeredPort(getpid());
        ASSERT_NE(port, 0);
    }

    // Puts a new branch tagged with the case's number into the state.
    void arrange(const XID &xid, State state, const std::string &tag) {
        if (state == State::unknown) {
            return;
        }
        XID x = xid;
        ASSERT_EQ(companion().jniXAJMSStart(&x, 1, TMNOFLAGS), XA_OK);
        PGconn *pg = xajms_eg_connection(1);
        ASSERT_NE(pg, nullptr);
        if (state != State::readOnly && state != State::preparedReadOnly) {
            const std::string insert =
                "INSERT INTO work VALUES ('" + tag + "', " + std::to_string(++rows) + ")";
            rows -= state == State::violating ? 1 : 0;
            PQclear(PQexec(pg, insert.c_str()));
            if (state == State::violating) {
                PQclear(PQexec(pg, insert.c_str()));  // the deferred unique check fails later
            }
        }
        if (state != State::associated) {
            const long flags = state == State::failed ? TMFAIL : TMSUCCESS;
            ASSERT_EQ(companion().jniXAJMSEnd(&x, 1, flags), XA_OK);
        }
        if (state == State::prepared || state == State::preparedReadOnly) {
            ASSERT_EQ(ask(port, kPrepare, xid, 1, TMNOFLAGS),
                      state == State::prepared ? XA_OK : XA_RDONLY);
        }
        if (state == State::committedOnePhase) {
            ASSERT_EQ(ask(port, kCommit, xid, 1, TMONEPHASE), XA_OK);
        }
    }

    std::optional<Database> db;
    int port = 0;
    int rows = 0;
};

TEST_F(EgOutcomes, EachRequestOnEachBranchStateAnswersAndLeavesTheDatabaseAsXaSays) {
    const struct {
        int request;
        long flags;
        State state;
        int code;
        long committed, prepared;  // rows of the case, prepared transactions, afterwards
    } cases[] = {
        {kPrepare, 0, State::ended, XA_OK, 0, 1},
        {kPrepare, 0, State::readOnly, XA_RDONLY, 0, 0},
        {kPrepare, 0, State::violating, XA_RBINTEGRITY, 0, 0},
        {kPrepare, 0, State::failed, XA_RBROLLBACK, 0, 0},
        {kPrepare, 0, State::prepared, XA_OK, 0, 1},  // a retried prepare
        {kPrepare, 0, State::unknown, XA_RBROLLBACK, 0, 0},
        {kPrepare, 0, State::associated, XAER_PROTO, 0, 0},
        {kPrepare, 0, State::preparedReadOnly, XA_RDONLY, 0, 0},
        {kCommit, 0, State::ended, XAER_PROTO, 0, 0},
        {kCommit, 0, State::failed, XAER_PROTO, 0, 0},
        {kCommit, 0, State::prepared, XA_OK, 1, 0},
        {kCommit, 0, State::unknown, XAER_NOTA, 0, 0},
        {kCommit, TMONEPHASE, State::ended, XA_OK, 1, 0},
        {kCommit, TMONEPHASE, State::violating, XA_RBINTEGRITY, 0, 0},
        {kCommit, TMONEPHASE, State::failed, XA_RBROLLBACK, 0, 0},
        {kCommit, TMONEPHASE, State::prepared, XAER_PROTO, 0, 1},
        {kCommit, TMONEPHASE, State::unknown, XA_RBROLLBACK, 0, 0},  // its work is gone
        {kCommit, TMONEPHASE, State::committedOnePhase, XA_OK, 1, 0},
        {kRollback, 0, State::ended, XA_OK, 0, 0},
        {kRollback, 0, State::failed, XA_OK, 0, 0},
        {kRollback, 0, State::prepared, XA_OK, 0, 0},
        {kRollback, 0, State::unknown, XAER_NOTA, 0, 0},
        {kRollback, 0, State::associated, XAER_PROTO, 0, 0},
        {kForget, 0, State::prepared, XAER_NOTA, 0, 1},
        {kForget, 0, State::unknown, XAER_NOTA, 0, 0},
    };
    int n = 0;
    for (const auto &c : cases) {
        const XID xid = testXid(++n);
        const std::string tag = "case" + std::to_string(n);
        SCOPED_TRACE(tag);
        arrange(xid, c.state, tag);
        EXPECT_EQ(ask(port, c.request, xid, 1, c.flags), c.code);
        EXPECT_EQ(db->committed(tag), c.committed);
        EXPECT_EQ(db->prepared(), c.prepared);
        if (c.state == State::associated) {
            XID x = xid;
            companion().jniXAJMSEnd(&x, 1, TMSUCCESS);
        }
        ask(port, kRollback, xid, 1, TMNOFLAGS);  // whatever the case left
    }
}

// With the server down, nothing may look done: a prepare's work is gone (rollback), a
// prepared branch stays prepared for a later commit or rollback.
TEST_F(EgOutcomes, WithTheServerDownNoRequestClaimsAnOutcome) {
    const struct {
        int request;
        long flags;
        State state;
        int code;
        long prepared;  // afterwards, once the server is back
    } cases[] = {
        {kPrepare, 0, State::ended, XA_RBCOMMFAIL, 0},
        {kPrepare, 0, State::unknown, XAER_RMFAIL, 0},
        {kCommit, 0, State::prepared, XAER_RMFAIL, 1},
        {kCommit, TMONEPHASE, State::ended, XAER_RMFAIL, 0},
        {kRollback, 0, State::prepared, XAER_RMFAIL, 1},
    };
    int n = 100;
    for (const auto &c : cases) {
        const XID xid = testXid(++n);
        const std::string tag = "case" + std::to_string(n);
        SCOPED_TRACE(tag);
        arrange(xid, c.state, tag);
        ASSERT_TRUE(cluster("stop"));
        EXPECT_EQ(ask(port, c.request, xid, 1, c.flags), c.code);
        ASSERT_TRUE(cluster("start"));
        EXPECT_EQ(db->committed(tag), 0);
        EXPECT_EQ(db->prepared(), c.prepared);
        db->clearPrepared();
    }
}

TEST_F(EgOutcomes, RecoverListsOnlyThisGroupsPreparedBranchesOfTheRmid) {
    const XID mine = testXid(1);
    arrange(mine, State::prepared, "mine");
    // Another group's branch and a foreign gid in the same database are not ours to report.
    db->exec("BEGIN; INSERT INTO work VALUES ('other', 2); PREPARE TRANSACTION 'someone-else'");
    unsigned char request[20] = {};
    buildHeader_jms(request, 0, 0x2006, 1, TMSTARTRSCAN | TMENDRSCAN);
    XID found[4] = {};
    int sockfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{
        AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(sockfd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(send(sockfd, request, sizeof request, 0), 20);
    int count = 0;
    int rc = 0;
    unsigned char buffer[protocol::kRecoverBuffer] = {};
    XID *xids = receiveRecoverMsg_jms(sockfd, &count, buffer, &rc);
    close(sockfd);
    ASSERT_EQ(count, 1);
    ASSERT_NE(xids, nullptr);
    found[0] = xids[0];
    std::free(xids);
    EXPECT_EQ(
        std::tuple(found[0].formatID, found[0].gtrid_length, found[0].bqual_length,
                   std::string(found[0].data, 8)),
        std::tuple(mine.formatID, mine.gtrid_length, mine.bqual_length, std::string(mine.data, 8)));
    db->clearPrepared();
}

TEST_F(EgOutcomes, RowNamesTheGroupAndCloseEmptiesItLeavingPreparedBranches) {
    registry::Row row{};
    ASSERT_TRUE(registryRow(getpid(), row));
    EXPECT_EQ(std::tuple(row.mode, std::string(row.ExGrp)),
              std::tuple(registry::kModeBroker, "EGT"));
    // Requests that are not the library's close their own connection only.
    const unsigned char unknownType[20] = {0, 0, 0, 20, 0, 0, 0x20, 0x99};
    const unsigned char oversized[20] = {0, 0, 0x10, 0, 0, 0, 0x20, 0x02};
    const unsigned char badXid[44] = {0, 0, 0, 44, 0, 0, 0x20, 0x02, 0, 0, 0, 1, 0, 0, 0, 0,
                                      0, 0, 0, 0,  0, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0x7f};
    for (const auto &[bytes, length] :
         {std::pair{unknownType, sizeof unknownType}, std::pair{oversized, sizeof oversized},
          std::pair{badXid, sizeof badXid}}) {
        EXPECT_EQ(ask(port, bytes, length), -99);
    }
    const XID xid = testXid(7);
    arrange(xid, State::prepared, "kept");
    EXPECT_EQ(xajms_eg_wait_closed(0), 0);
    unsigned char close[40] = {};
    buildHeader_jms(close, 40, 0x2005, 1, TMNOFLAGS);
    std::memcpy(close + 20, "Cleanup Java Process", 20);
    ask(port, close, sizeof close);
    EXPECT_EQ(xajms_eg_wait_closed(10000), 1);
    EXPECT_FALSE(registryRow(getpid(), row));
    EXPECT_EQ(db->prepared(), 1);
    db->clearPrepared();
}

}  // namespace
}  // namespace xajms::test
