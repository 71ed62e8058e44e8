// Connections to a listener on the local host and the pool lock's life cycle, compared as
// whole trace lines.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;
using xajms::test::LoopbackPort;

class Socket : public ::testing::Test {
  protected:
    void SetUp() override {
        xajms::test::freezeTraceColumns();
        xajms::test::enableSocketTrace(prefix);
    }
    // The lines written since the last call.
    std::vector<std::string> take() {
        auto written = xajms::test::traceLines(prefix);
        std::filesystem::remove(prefix + "12345.trc");
        return written;
    }
    static int lowestFreeDescriptor() {
        const int fd = open("/dev/null", O_RDONLY);
        close(fd);
        return fd;
    }

    xajms::test::TempDir dir;
    std::string prefix = dir.path() + "/s";
};

// The start line is written by the first attempt and again after a failed one; the socket
// of a failed connect stays open.
TEST_F(Socket, FailedConnectLeavesItsSocketOpenAndRestartsTheStartLine) {
    LoopbackPort listener;
    LoopbackPort refused(false);
    const std::string p = std::to_string(listener.port());
    const std::string r = std::to_string(refused.port());

    const int first = makeConnection_jms(listener.port());
    ASSERT_GT(first, 0);
    EXPECT_EQ(flSocketInit_jms, 1);
    take();

    const int second = makeConnection_jms(listener.port());
    ASSERT_GT(second, 0);
    EXPECT_EQ(
        take(),
        (std::vector<std::string>{
            golden(1, "{ XASocket makeConnection   port=" + p),
            golden(1,
                   "  XASocket makeConnection   Attempting to connect to Java listener on port = " +
                       p),
            golden(1, "} XASocket makeConnection   now socket connected to Java listener sokfd=" +
                          std::to_string(second) + " on port=" + p),
        }));

    const int leaked = lowestFreeDescriptor();
    EXPECT_EQ(makeConnection_jms(refused.port()), 0);
    EXPECT_EQ(flSocketInit_jms, 0);
    EXPECT_TRUE(xajms::test::isOpen(leaked));
    EXPECT_EQ(
        take(),
        (std::vector<std::string>{
            golden(1, "{ XASocket makeConnection   port=" + r),
            golden(1,
                   "  XASocket makeConnection   Attempting to connect to Java listener on port = " +
                       r),
            golden(1, "} XASocket makeConnection   <ERROR> failed while connecting on port"),
        }));

    ASSERT_GT(makeConnection_jms(listener.port()), 0);
    EXPECT_EQ(take()[1], golden(1, "  XASocket makeConnection   Unix socket Starting"));
    EXPECT_EQ(flSocketInit_jms, 1);
}

// A delete destroys the lock once; with no lock it writes only its entry and exit lines.
// (Creating it anew on the next lock is traced in Pool.ClearActionTracesAroundTheLockAndTheClear.)
TEST_F(Socket, LockIsDeletedOnlyWhenItExists) {
    struct Step {
        const char *name;
        std::function<void()> act;
        std::vector<std::string> lines;
        int flag;
    };
    const Step steps[] = {
        {"delete",
         deleteConnectionPoolLock_jms,
         {golden(1, "{ XASocket deleteConnectionPool_jms "),
          golden(1, "  XASocket deleteConnectionPoolLock_jmd   deleted ConnectionPool rwlock"),
          golden(1, "} XASocket deleteConnectionPool ")},
         0},
        {"delete without a lock",
         deleteConnectionPoolLock_jms,
         {golden(1, "{ XASocket deleteConnectionPool_jms "),
          golden(1, "} XASocket deleteConnectionPool ")},
         0},
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.name);
        s.act();
        EXPECT_EQ(take(), s.lines);
        EXPECT_EQ(flConnectionPoolInitialized_jms, s.flag);
        EXPECT_EQ(iIndent, 0);
    }
}

}  // namespace
