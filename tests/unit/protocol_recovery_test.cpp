// Recovery: one recover reply read over a socket pair, refused wherever it would overrun;
// the merge of several listeners' lists by the broker recovery; the start-up recovery and
// the close that follows it.
#include <xajms/xajms.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"

#if defined(__SANITIZE_ADDRESS__)
// Lets an allocation above 1 GiB fail with null instead of ending the test.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=1024";
}
#endif

namespace {

using namespace xajms::test;

#define ENTER_PRIVATE_ORLOM()                                 \
    if (const auto why = enterPrivateOrlom(); !why.empty()) { \
        GTEST_SKIP() << why;                                  \
    }

constexpr int kSentinel = -1;  // formatID of a caller's record that nothing wrote

// Flattened XIDs with the given formatIDs, each with a 2-byte gtrid and a 1-byte bqual.
Bytes records(const std::vector<int> &ids) {
    Bytes b;
    for (int id : ids) {
        const Bytes one = flatXid(id, 2, 1, {'g', 't', 'b'});
        b.insert(b.end(), one.begin(), one.end());
    }
    return b;
}

Reply listOf(const std::vector<int> &ids) {
    const Bytes r = records(ids);
    return recoverReply(static_cast<int>(ids.size()), static_cast<int>(r.size()), r);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Writes the reply into one end of a socket pair, optionally closes that end, and reads it
// with receiveRecoverMsg_jms from the other end.
struct Received {
    XID *xids = nullptr;
    int count = kSentinel;
    int rc = 12345;
};

Received receive(const Bytes &reply) {
    int pair[2];
    Received r;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        ADD_FAILURE() << "socketpair";
        return r;
    }
    EXPECT_EQ(write(pair[1], reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    close(pair[1]);  // whatever was not sent is never coming
    unsigned char buffer[1024];
    r.xids = receiveRecoverMsg_jms(pair[0], &r.count, buffer, &r.rc);
    close(pair[0]);
    return r;
}

TEST(RecoverReply, IsTakenOnlyWhenItsRecordsLieWithinItsSize) {
    const Bytes two = records({7, 8});
    const Bytes wide = flatXid(9, 65, 64, Bytes(129, 'w'));  // 129 data bytes: above 128
    const Bytes negative = flatXid(9, -1, 10, Bytes(9, 'n'));
    Bytes head = recoverReply(1, 100, {}).bytes;
    struct Case {
        const char *name;
        Bytes reply;
        int rc;
        int count;  // records returned; kSentinel when null and *xidcount untouched
    } cases[] = {
        {"two records", listOf({7, 8}).bytes, 0, 2},
        {"count 0", recoverReply(0, 27, records({7})).bytes, 0, kSentinel},
        {"negative count", recoverReply(-5, 27, records({7})).bytes, 0, kSentinel},
        {"negative size", recoverReply(1, -1, records({7})).bytes, 0, kSentinel},
        {"size 0", recoverReply(1, 0, {}).bytes, 0, kSentinel},
        {"count above the records", recoverReply(0x7fffffff, 54, two).bytes, -7, kSentinel},
        {"more records than the size holds",
         recoverReply(2, 40, Bytes(two.begin(), two.begin() + 40)).bytes, -7, kSentinel},
        {"data above 128 bytes", recoverReply(1, static_cast<int>(wide.size()), wide).bytes, -7,
         kSentinel},
        {"negative length", recoverReply(1, static_cast<int>(negative.size()), negative).bytes, -7,
         kSentinel},
        {"size far above what arrives", recoverReply(1, 0x7fffffff, two).bytes, -7, kSentinel},
        {"closed inside the records",
         recoverReply(2, 54, Bytes(two.begin(), two.begin() + 30)).bytes, -7, kSentinel},
        {"closed inside the head", Bytes(head.begin(), head.begin() + 6), -7, kSentinel},
        {"closed before anything", {}, -7, kSentinel},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Received r = receive(c.reply);
        EXPECT_EQ(r.rc, c.rc);
        EXPECT_EQ(r.count, c.count);
        EXPECT_EQ(r.xids != nullptr, c.count != kSentinel);
        if (r.xids != nullptr && c.count == 2) {
            EXPECT_EQ(r.xids[0].formatID, 7);
            EXPECT_EQ(r.xids[1].formatID, 8);
            EXPECT_EQ(r.xids[1].gtrid_length, 2);
            EXPECT_EQ(std::string(r.xids[1].data, 3), "gtb");
        }
        std::free(r.xids);
    }
}

TEST(RecoverReply, NullArgumentsAreReplacedByTheRoutinesOwn) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const Bytes reply = listOf({5}).bytes + answer(-4).bytes;
    ASSERT_EQ(write(pair[1], reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    XID *xids = receiveRecoverMsg_jms(pair[0], nullptr, nullptr, nullptr);
    ASSERT_NE(xids, nullptr);
    EXPECT_EQ(xids[0].formatID, 5);
    std::free(xids);
    EXPECT_EQ(receiveXARC_jms(pair[0], nullptr), -4);
    close(pair[0]);
    close(pair[1]);
}

// A 2 GiB data area is refused: by an address-space limit, or, under the address sanitizer
// (which reserves far more address space for itself), by its allocation limit.
TEST(RecoverReply, AnAllocationThatFailsIsAFailedRead) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &saved), 0);
    if (!kSanitized) {
        rlimit tight = saved;
        tight.rlim_cur = 1024L * 1024 * 1024;
        ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    }
    const Received r = receive(recoverReply(1, 0x7fffffff, records({7})).bytes);
    if (!kSanitized) {
        setrlimit(RLIMIT_AS, &saved);
    }
    EXPECT_EQ(r.xids, nullptr);
    EXPECT_EQ(r.rc, -7);
    EXPECT_EQ(r.count, kSentinel);
}

// A listener of a broker-recovery case: a list, a reply without records, a closed
// connection, or a port that refuses connections.
struct Listener {
    std::vector<int> ids;
    enum class Does { list, none, closes, refuses } does = Does::list;
};
using Does = Listener::Does;

TEST(BrokerRecover, MergesTheListsOfTheListenersAsRequired) {
    ENTER_PRIVATE_ORLOM();
    struct Case {
        const char *name;
        std::vector<Listener> listeners;
        long capacity;
        int rc;
        std::vector<int> held;  // formatIDs of the caller's first capacity + 1 records
        bool nullArray = false;
    } cases[] = {
        {"capacity below the list", {{{1, 2, 3, 4, 5}}}, 3, 3, {1, 2, 3, -1}},
        {"later list overwrites", {{{11, 12}}, {{21}}}, 5, 1, {21, 12, -1, -1, -1, -1}},
        {"count kept after a failure", {{{11, 12}}, {{}, Does::closes}}, 3, 2, {11, 12, -1, -1}},
        {"count kept after an empty reply", {{{11, 12}}, {{}, Does::none}}, 3, 2, {11, 12, -1, -1}},
        {"empty reply", {{{}, Does::none}}, 3, 0, {-1, -1, -1, -1}},
        {"empty then failure", {{{}, Does::none}, {{}, Does::closes}}, 2, -7, {-1, -1, -1}},
        {"failure then empty", {{{}, Does::closes}, {{}, Does::none}}, 2, 0, {-1, -1, -1}},
        {"no socket", {{{}, Does::refuses}}, 2, -7, {-1, -1, -1}},
        {"capacity 0", {{{1, 2}}}, 0, 0, {-1}},
        {"negative capacity is the result", {{{1, 2}}}, -1, -1, {}},
        {"null array", {{{1, 2}}}, 3, 2, {}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        occupyDescriptorZero();
        std::vector<std::unique_ptr<ScriptedListener>> listeners;
        std::vector<std::unique_ptr<LoopbackPort>> refusing;
        std::vector<std::pair<int, int>> rows;
        for (const Listener &l : c.listeners) {
            if (l.does == Does::refuses) {
                refusing.push_back(std::make_unique<LoopbackPort>(false));
                rows.emplace_back(2, refusing.back()->port());
                continue;
            }
            const Reply reply = l.does == Does::closes ? Reply{Reply::Kind::close, {}}
                                : l.does == Does::none ? recoverReply(0, 0, {})
                                                       : listOf(l.ids);
            listeners.push_back(std::make_unique<ScriptedListener>(std::vector<Reply>{reply}));
            rows.emplace_back(2, listeners.back()->port());
        }
        writeRegistry(rows);
        std::vector<XID> held(c.held.size());
        for (XID &x : held) {
            x.formatID = kSentinel;
        }

        const int rc =
            sendBrokerXARecover_jms(c.nullArray ? nullptr : held.data(), c.capacity, 1, 0);

        EXPECT_EQ(rc, c.rc);
        for (std::size_t i = 0; i < held.size(); ++i) {
            EXPECT_EQ(held[i].formatID, c.held[i]) << "record " << i;
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

// Without pending or broker ports the start-up recovery port number is taken as the
// number of entries of the port list, which holds no port: nobody is asked.
TEST(BrokerRecover, AStartUpPortNumberAsEntryCountAsksNobody) {
    ENTER_PRIVATE_ORLOM();
    ScriptedListener recovery({listOf({1})});
    writeRegistry({{1, recovery.port()}});
    XID xids[2];
    EXPECT_EQ(sendBrokerXARecover_jms(xids, 2, 1, 0), -7);
    EXPECT_EQ(recovery.connections(), 0);
}

TEST(BrokerRecover, NoPortsAfterFifteenAttemptsIsRmfail) {
    ENTER_PRIVATE_ORLOM();
    resetSleeps();
    XID xids[1];
    EXPECT_EQ(sendBrokerXARecover_jms(xids, 1, 1, 0), -7);
    EXPECT_EQ(sleepCalls(), 15);
}

TEST(StartUpRecover, WithoutARecoveryPortIsRmfailAfterTheClose) {
    ENTER_PRIVATE_ORLOM();
    writeRegistry({{2, 4711}});
    resetSleeps();
    XID xids[1];
    EXPECT_EQ(sendStartUpXARecover_jms(xids, 1, 1, 0), -7);
    EXPECT_EQ(sleepCalls(), 10);  // five attempts of its own, five of the close
}

TEST(StartUpRecover, AFailedWriteIsRmfailWithoutAClose) {
    ENTER_PRIVATE_ORLOM();
    ScriptedListener recovery({});
    writeRegistry({{1, recovery.port()}});
    int fd = 0;
    connectionSocketPool_jms(recovery.port(), &fd, 10);
    connectionSocketPool_jms(recovery.port(), &fd, 20);
    shutdown(fd, SHUT_WR);
    XID xids[1];
    EXPECT_EQ(sendStartUpXARecover_jms(xids, 1, 1, 0), -7);
    EXPECT_EQ(recovery.requests().size(), 0u);
    EXPECT_EQ(registryMode(0), 1);
}

}  // namespace
