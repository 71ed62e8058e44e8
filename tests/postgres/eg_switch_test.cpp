// The library end to end in a broker process with the PostgreSQL execution group as its
// companion: the switch record's entries reach the branch in-process (open, start, end) and
// over the listener (prepare, commit, rollback, recover); hosts that die leave no branch that
// looks prepared and no prepared branch that cannot be recovered. Each case runs under every
// start function the library exports.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "cluster.h"

namespace xajms::test {
namespace {

class EgSwitch : public ::testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        const std::string why = enterPostgresTest();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        db.emplace("switch");
        ZJavaInitSwitchJMS();
        sw = reinterpret_cast<xa_switch_t *(*)()>(dlsym(RTLD_DEFAULT, GetParam()))();
    }
    void TearDown() override {
        if (child > 0) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    int open(const char *eg = "EGS") {
        std::string text = std::string("eg=") + eg + " conninfo='" + db->conninfo + "'";
        return sw->xa_open_entry(text.data(), 1, TMNOFLAGS);
    }
    // Starts a branch, inserts a row tagged with the tag through the branch's connection and
    // ends it with the flags. Returns the end's code, or the failing step's.
    int work(XID &x, const std::string &tag, long endFlags = TMSUCCESS) {
        const int started = sw->xa_start_entry(&x, 1, TMNOFLAGS);
        PGconn *pg = xajms_eg_connection(1);
        if (started != XA_OK || pg == nullptr) {
            return started != XA_OK ? started : -1000;
        }
        PQclear(PQexec(
            pg,
            ("INSERT INTO work VALUES ('" + tag + "', " + std::to_string(++rows) + ")").c_str()));
        return sw->xa_end_entry(&x, 1, endFlags);
    }
    // Runs the steps in a child host process that then waits to be killed. Returns the code
    // the steps returned, or -999 when the child ended without one.
    int inHost(const std::function<int()> &steps) {
        int fds[2];
        if (pipe(fds) != 0) {
            return -999;
        }
        child = fork();
        if (child == 0) {
            const int rc = steps();
            (void)!write(fds[1], &rc, sizeof rc);
            pause();
            _exit(0);
        }
        close(fds[1]);
        int rc = -999;
        if (read(fds[0], &rc, sizeof rc) != sizeof rc) {
            rc = -999;
        }
        close(fds[0]);
        return rc;
    }
    // Kills the child host as a crash would.
    void crashHost() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        child = -1;
    }

    std::optional<Database> db;
    xa_switch_t *sw = nullptr;
    pid_t child = -1;
    int rows = 0;
};

TEST_P(EgSwitch, CoordinatorOutcomesReachPostgresThroughTheSwitch) {
    ASSERT_EQ(open(), XA_OK);
    const struct {
        const char *name;
        long endFlags, completionFlags;
        int prepare;  // -1: no prepare, one-phase
        int (*xa_switch_t::*completion)(XID *, int, long);
        int completed;
        long committed;
    } cases[] = {
        {"two-phase commit", TMSUCCESS, TMNOFLAGS, XA_OK, &xa_switch_t::xa_commit_entry, XA_OK, 1},
        {"rollback", TMSUCCESS, TMNOFLAGS, XA_OK, &xa_switch_t::xa_rollback_entry, XA_OK, 0},
        {"one-phase", TMSUCCESS, TMONEPHASE, -1, &xa_switch_t::xa_commit_entry, XA_OK, 1},
        {"TMFAIL", TMFAIL, TMNOFLAGS, XA_RBROLLBACK, nullptr, 0, 0},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        XID xid = testXid(++n);
        ASSERT_EQ(work(xid, c.name, c.endFlags), XA_OK);
        if (c.prepare != -1) {
            EXPECT_EQ(sw->xa_prepare_entry(&xid, 1, TMNOFLAGS), c.prepare);
        }
        if (c.completion != nullptr) {
            EXPECT_EQ((sw->*c.completion)(&xid, 1, c.completionFlags), c.completed);
        }
        EXPECT_EQ(db->committed(c.name), c.committed);
        EXPECT_EQ(db->prepared(), 0);
    }
    EXPECT_EQ(sw->xa_close_entry(nullptr, 1, TMNOFLAGS), XA_OK);
}

// Threads of the host each start, work, end, prepare and commit their own branches at once:
// each gets its own connection, and the listener serves the library's pooled connections
// side by side.
TEST_P(EgSwitch, ManyThreadsCommitTheirOwnBranchesAtOnce) {
    ASSERT_EQ(open(), XA_OK);
    constexpr int kThreads = 8, kEach = 5;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                XID xid = testXid(t * kEach + i + 1);
                const int start = sw->xa_start_entry(&xid, 1, TMNOFLAGS);
                const std::string insert =
                    "INSERT INTO work VALUES ('many', " + std::to_string(t * kEach + i) + ")";
                PQclear(PQexec(xajms_eg_connection(1), insert.c_str()));
                const int codes[] = {start, sw->xa_end_entry(&xid, 1, TMSUCCESS),
                                     sw->xa_prepare_entry(&xid, 1, TMNOFLAGS),
                                     sw->xa_commit_entry(&xid, 1, TMNOFLAGS)};
                failures += std::count_if(std::begin(codes), std::end(codes),
                                          [](int rc) { return rc != XA_OK; });
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(db->committed("many"), kThreads * kEach);
}

// One execution group per registry: a second live one is refused, so that no other listener
// can answer, and the library fold over, a branch that is not its own.
TEST_P(EgSwitch, SecondExecutionGroupIsRefusedWhileTheFirstLives) {
    ASSERT_EQ(inHost([this] { return open("EGA"); }), XA_OK);
    EXPECT_EQ(open("EGB"), XAER_RMERR);
    registry::Row row{};
    EXPECT_FALSE(registryRow(getpid(), row));
    ASSERT_TRUE(registryRow(child, row));
    EXPECT_EQ(std::string(row.ExGrp), "EGA");
    crashHost();
    // The dead host's row is no longer in the way.
    EXPECT_EQ(open("EGB"), XA_OK);
    EXPECT_TRUE(registryRow(getpid(), row));
}

TEST_P(EgSwitch, HostThatExitsWithoutACloseLeavesNoRow) {
    const pid_t host = fork();
    if (host == 0) {
        std::exit(open() == XA_OK && registeredPort(getpid()) != 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(host, &status, 0), host);
    EXPECT_EQ(status, 0);
    registry::Row row{};
    EXPECT_FALSE(registryRow(host, row));
}

TEST_P(EgSwitch, BranchOfAHostKilledBeforePrepareVotesRollback) {
    XID xid = testXid(1);
    ASSERT_EQ(inHost([&] { return open() != XA_OK ? -1 : work(xid, "lost"); }), XA_OK);
    crashHost();
    ASSERT_EQ(open(), XA_OK);
    EXPECT_EQ(sw->xa_prepare_entry(&xid, 1, TMNOFLAGS), XA_RBROLLBACK);
    EXPECT_EQ(db->committed("lost"), 0);
    EXPECT_EQ(db->prepared(), 0);
}

TEST_P(EgSwitch, PreparedBranchSurvivesHostAndServerCrashAndCommitsOnRequest) {
    XID xid = testXid(1);
    ASSERT_EQ(inHost([&] {
                  const int rc = open() != XA_OK ? -1 : work(xid, "kept");
                  return rc != XA_OK ? rc : sw->xa_prepare_entry(&xid, 1, TMNOFLAGS);
              }),
              XA_OK);
    crashHost();
    ASSERT_TRUE(cluster("kill"));
    ASSERT_TRUE(cluster("start"));
    ASSERT_EQ(open(), XA_OK);
    XID found[8] = {};
    ASSERT_EQ(sendBrokerXARecover_jms(found, 8, 1, TMSTARTRSCAN | TMENDRSCAN), 1);
    EXPECT_EQ(
        std::tuple(found[0].formatID, found[0].gtrid_length, found[0].bqual_length,
                   std::string(found[0].data, 8)),
        std::tuple(xid.formatID, xid.gtrid_length, xid.bqual_length, std::string(xid.data, 8)));
    EXPECT_EQ(sw->xa_commit_entry(&found[0], 1, TMNOFLAGS), XA_OK);
    EXPECT_EQ(db->committed("kept"), 1);
    EXPECT_EQ(db->prepared(), 0);
}

// The start functions that the linked library exports: the hardened one joins the cases once
// the library has it.
std::vector<const char *> startFunctions() {
    std::vector<const char *> names;
    for (const char *name : {"OrloStart", "OrloStartSafe"}) {
        if (dlsym(RTLD_DEFAULT, name) != nullptr) {
            names.push_back(name);
        }
    }
    return names;
}

INSTANTIATE_TEST_SUITE_P(StartFunctions, EgSwitch, ::testing::ValuesIn(startFunctions()),
                         [](const auto &p) { return std::string(p.param); });

}  // namespace
}  // namespace xajms::test
