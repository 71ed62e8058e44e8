// The open and close entries: open strings remembered per rmid in a queue-manager process,
// opens in Java in a broker process, and the pool emptied by the first open and last close.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstring>
#include <string>

#include "support/fakes.h"
#include "support/pellux.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;

char *text(std::string &s) {
    return s.data();
}

// Puts a connected descriptor into the pool as port 4000's only socket; returns it.
int pooledSocket() {
    int pair[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
    close(pair[1]);
    processConnectionPool_jms.numPorts = 1;
    processConnectionPool_jms.row[0].port = 4000;
    processConnectionPool_jms.row[0].rows = 1;
    processConnectionPool_jms.row[0].slot[0] = SocketSlot{pair[0], 0};
    return pair[0];
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(OpenTable, FirstStringPerRmidIsKeptAndOpensNestByCount) {
    std::string first = "queue=A";
    std::string second = "queue=B";
    EXPECT_EQ(xa_open_entry_jms(text(first), 5, TMNOFLAGS), XA_OK);
    EXPECT_EQ(xa_open_entry_jms(text(second), 5, TMNOFLAGS), XA_OK);
    EXPECT_EQ(xa_open_entry_jms(text(second), 6, TMNOFLAGS), XA_OK);
    ASSERT_NE(pRmidOpenstrTable, nullptr);
    EXPECT_EQ(pRmidOpenstrTable[0].rmid, 5U);
    EXPECT_STREQ(pRmidOpenstrTable[0].openstring, "queue=A");
    EXPECT_EQ(pRmidOpenstrTable[1].rmid, 6U);
    EXPECT_EQ(pRmidOpenstrTable[2].rmid, 999U);
    EXPECT_STREQ(pRmidOpenstrTable[2].openstring, " ");
    EXPECT_EQ(intXAOpen_jms, 3);

    for (int left : {2, 1}) {
        EXPECT_EQ(xa_close_entry_jms(nullptr, 5, TMNOFLAGS), XA_OK);
        EXPECT_EQ(intXAOpen_jms, left);
        EXPECT_NE(pRmidOpenstrTable, nullptr);
    }
    EXPECT_EQ(xa_close_entry_jms(nullptr, 5, TMNOFLAGS), XA_OK);
    EXPECT_EQ(pRmidOpenstrTable, nullptr);
    EXPECT_EQ(xa_close_entry_jms(nullptr, 5, TMNOFLAGS), XA_OK);  // close without an open
    EXPECT_EQ(intXAOpen_jms, 0);
}

TEST(OpenTable, FirstOpenAndLastCloseEmptyThePool) {
    std::string open = "o";
    const int before = pooledSocket();
    xa_open_entry_jms(text(open), 1, TMNOFLAGS);
    EXPECT_FALSE(isOpen(before));
    EXPECT_EQ(processConnectionPool_jms.row[0].slot[0].sockfd, 0);
    EXPECT_EQ(intClearedConnectionPool_jms, 1);

    const int kept = pooledSocket();
    xa_open_entry_jms(text(open), 2, TMNOFLAGS);  // a second open leaves the pool alone
    xa_close_entry_jms(nullptr, 2, TMNOFLAGS);
    EXPECT_TRUE(isOpen(kept));
    xa_close_entry_jms(nullptr, 1, TMNOFLAGS);
    EXPECT_FALSE(isOpen(kept));
}

TEST(OpenTable, LongOpenStringIsStoredAs256CharactersWithoutTerminator) {
    std::string open(300, 'o');
    xa_open_entry_jms(text(open), 1, TMNOFLAGS);
    EXPECT_EQ(std::string(pRmidOpenstrTable[0].openstring, 256), std::string(256, 'o'));
    EXPECT_EQ(pRmidOpenstrTable[1].rmid, 999U);  // the next record is untouched
}

TEST(OpenTable, NullOpenStringIsStoredAsEmpty) {
    EXPECT_EQ(xa_open_entry_jms(nullptr, 4, TMNOFLAGS), XA_OK);
    EXPECT_EQ(pRmidOpenstrTable[0].rmid, 4U);
    EXPECT_STREQ(pRmidOpenstrTable[0].openstring, "");
}

TEST(OpenTable, FullTableRefusesA501stRmid) {
    std::string open = "o";
    for (int rmid = 0; rmid < 500; ++rmid) {
        ASSERT_EQ(xa_open_entry_jms(text(open), rmid, TMNOFLAGS), XA_OK);
    }
    EXPECT_EQ(xa_open_entry_jms(text(open), 500, TMNOFLAGS), XAER_RMERR);
    EXPECT_EQ(xa_open_entry_jms(text(open), 499, TMNOFLAGS), XA_OK);  // known rmids still open
    EXPECT_EQ(pRmidOpenstrTable[499].rmid, 499U);
}

TEST(OpenTable, TableThatCannotBeAllocatedRefusesTheOpen) {
    if (!xajms::test::allocationFaultsAvailable()) {
        GTEST_SKIP() << "allocation faults need the allocator that AddressSanitizer replaces";
    }
    std::string open = "o";
    xajms::test::failAllocation(1);
    EXPECT_EQ(xa_open_entry_jms(text(open), 1, TMNOFLAGS), XAER_RMERR);
    xajms::test::failAllocation(0);
    EXPECT_EQ(pRmidOpenstrTable, nullptr);
    EXPECT_EQ(intXAOpen_jms, 1);
}

TEST(OpenTable, BrokerProcessOpensInJava) {
    xajms::test::Pellux pellux;
    ASSERT_TRUE(pellux.loaded());
    ZJavaInitSwitchJMS();
    std::string open = "broker=B1";
    struct Case {
        int java;
        int deployed;
        int result;
    } cases[] = {{0, 0, XA_OK}, {XAER_RMERR, 0, XAER_RMERR}, {XAER_RMERR, 1, XA_OK}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.java);
        pellux.answer(c.java, 0, 0);
        flBrokerHasDeployed_jms = c.deployed;
        EXPECT_EQ(xa_open_entry_jms(text(open), 3, TMNOFLAGS), c.result);
        ASSERT_EQ(pellux.calls().size(), 1U);
        EXPECT_STREQ(pellux.calls()[0].openstring, "broker=B1");
    }
    EXPECT_EQ(pRmidOpenstrTable, nullptr);

    flBrokerHasDeployed_jms = 0;
    xajms::test::setDlopen([](const char *, int) -> void * { return nullptr; });
    EXPECT_EQ(xa_open_entry_jms(text(open), 3, TMNOFLAGS), XAER_RMERR);
}

TEST(OpenTable, QueueManagerOpenIsTraced) {
    xajms::test::TempDir dir;
    xajms::test::freezeTraceColumns();
    const std::string prefix = dir.path() + "/t";
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    std::string open = "qm=QM1";

    xa_open_entry_jms(text(open), 7, TMNOFLAGS);
    xa_open_entry_jms(text(open), 7, TMNOFLAGS);

    const auto lines = xajms::test::traceLines(prefix);
    const std::vector<std::string> expected = {
        golden(1, "{ Varnelink xa_open_entry_jms "),
        golden(1,
               "  Varnelink xa_open_entry_jms   Open string=qm=QM1, rmid=7, number of opens "
               "this process=1"),
        golden(1, "  Varnelink xa_open_entry_jms   flags==               0"),
        // The first open empties the pool; both halves trace to the one file of the process.
        golden(3, "{ XASocket lockConnectionPool_jms "),
        golden(5, "{ XASocket initializeConnectionPoolLock    called for pid 12345 "),
        golden(5, "  XASocket initializeConnectionPoolock_jms   Created ConnectionPool rwlock"),
        golden(5, "} XASocket initializeConnectionPoolLock "),
        golden(3, "  XASocket lockConnectionPool   locked ConnectionPool_jms rwlock"),
        golden(3, "} XASocket lockConnectionPool_jms "),
        golden(3, "{ XASocket poolClear_jms   port=-1"),
        golden(3, "} XASocket poolClear_jms "),
        golden(3, "{ XASocket unlockConnectionPool "),
        golden(3, "  XASocket unlockConnectionPool   unlocked ConnectionPool rwlock"),
        golden(3, "} XASocket unlockConnectionPool "),
        golden(1,
               "  Varnelink xa_open_entry_jms   Not Broker Process so save the rmid and "
               "openstring"),
        golden(1, "  Varnelink xa_open_entry_jms   rmstr = qm=QM1  stored rmid=7"),
        golden(1, "  Varnelink xa_open_entry_jms   stored openstring qm=QM1"),
        golden(1, "} Varnelink xa_open_entry_jms "),
        golden(0, "        Return code = XA_OK         "),
        golden(1, "{ Varnelink xa_open_entry_jms "),
        golden(1,
               "  Varnelink xa_open_entry_jms   Open string=qm=QM1, rmid=7, number of opens "
               "this process=2"),
        golden(1, "  Varnelink xa_open_entry_jms   flags==               0"),
        golden(1,
               "  Varnelink xa_open_entry_jms   Not Broker Process so save the rmid and "
               "openstring"),
        golden(1, "  Varnelink xa_open_entry_jms   xa_open_entry found existing slot for rmid 7"),
        golden(1, "} Varnelink xa_open_entry_jms "),
        golden(0, "        Return code = XA_OK         "),
    };
    EXPECT_EQ(lines, expected);
}

}  // namespace
