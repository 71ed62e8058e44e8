// The listener protocol: integer encodings and XID flattening, the exact request bytes, the
// senders' mappings, the fan-out's combine table, recover replies refused wherever they would
// overrun, and the merge of several listeners' lists. Each listener is a socket pair in the
// pool with its reply waiting; the fan-out is replaced by a script where a test sets one.
#include <xajms/xajms.h>

#include <dlfcn.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"

namespace {

std::deque<int> fanOutResults;  // while scripted: what the fan-out returns, call by call
std::vector<int> fanOutTypes;   // the request codes it was called with
bool fanOutScripted = false;

}  // namespace

// Interposed over the library's fan-out, which the senders reach through the dynamic linker;
// forwards to it while no script is set.
extern "C" int callEGListeners_jms(const XID *xid, int rmid, long flags, int msgType) {
    using Fn = int (*)(const XID *, int, long, int);
    static auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "callEGListeners_jms"));
    if (!fanOutScripted) {
        return real(xid, rmid, flags, msgType);
    }
    fanOutTypes.push_back(msgType);
    const int rc = fanOutResults.empty() ? 0 : fanOutResults.front();
    if (!fanOutResults.empty()) {
        fanOutResults.pop_front();
    }
    return rc;
}

namespace {

using namespace xajms::test;

constexpr int kStartUp = 1, kBroker = 2, kDead = 3;
constexpr int kCommit = 0x2003;
const XID kXid{0x1234, 3, 2, "abcde"};

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes header(int msgSize, int msgType, int rmid, uint64_t flags) {
    Bytes b;
    for (int field : {msgSize, msgType, rmid}) {
        putBig(b, static_cast<uint32_t>(field), 4);
    }
    putBig(b, flags, 8);
    return b;
}

// Flattened XIDs with the given formatIDs, each with a 2-byte gtrid and a 1-byte bqual.
Bytes records(const std::vector<int> &ids) {
    Bytes b;
    for (int id : ids) {
        b = b + flatXid(id, 2, 1, {'g', 't', 'b'});
    }
    return b;
}

Bytes listOf(const std::vector<int> &ids) {
    return recoverReply(static_cast<int>(ids.size()), static_cast<int>(ids.size()) * 27,
                        records(ids));
}

// The library's end of the socket pooled for a port.
int pooled(int port) {
    for (const PortRow &row : processConnectionPool_jms.row) {
        if (row.port == port) {
            return row.slot[0].sockfd;
        }
    }
    return -1;
}

class Protocol : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const std::string why = enterPrivateOrlom(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        occupyDescriptorZero();
    }
    void TearDown() override {
        clearScripts();
        connectionSocketPool_jms(-1, nullptr, 40);
    }
};

TEST(Codec, FlatteningKeepsWithinTheDataAreaWhateverTheLengthsSay) {
    const std::tuple<long, long, int> cases[] = {
        {64, 64, 152}, {200, 3, 152}, {-5, 2, 24}, {-5, 10, 29}, {0x7fffffffffffffffL, 9, 152}};
    for (const auto &[gtrid, bqual, size] : cases) {
        const XID xid{0, gtrid, bqual, {}};
        auto *out = static_cast<unsigned char *>(std::malloc(160));  // exact size for ASan
        EXPECT_EQ(flattenXIDtoJavaTypes_jms(out, &xid), size) << gtrid;
        std::free(out);
    }
}

TEST_F(Protocol, EachRequestTypeIsSentByteForByte) {
    const Bytes flat = flatXid(0x1234, 3, 2, {'a', 'b', 'c', 'd', 'e'});
    const uint64_t flags = 0x40000000;  // TMONEPHASE
    XID none[1];
    const std::string longText(300, 'x');
    // the mode of the listener's row, the sender, the bytes that reach the listener
    const std::tuple<int, std::function<void()>, Bytes> cases[] = {
        {kBroker, [&] { sendXAPrepare_jms(&kXid, 7, flags); }, header(49, 0x2002, 7, flags) + flat},
        {kBroker, [&] { sendXACommit_jms(&kXid, 7, flags); }, header(49, 0x2003, 7, flags) + flat},
        {kBroker, [&] { sendXARollback_jms(&kXid, 7, flags); },
         header(49, 0x2004, 7, flags) + flat},
        {kBroker, [&] { sendXAForget_jms(&kXid, 7, flags); }, header(49, 0x2008, 7, flags) + flat},
        {kBroker, [&] { sendXACommit_jms(nullptr, 7, flags); }, header(20, 0x2003, 7, flags)},
        {kBroker, [&] { sendBrokerXARecover_jms(none, 1, 7, flags); }, header(0, 0x2006, 7, flags)},
        {kStartUp, [&] { sendXAClose_jms("Cleanup Java Process", 7, flags); },
         header(40, 0x2005, 7, flags) + Bytes{'C', 'l', 'e', 'a', 'n', 'u', 'p', ' ', 'J', 'a',
                                              'v', 'a', ' ', 'P', 'r', 'o', 'c', 'e', 's', 's'}},
        {kStartUp, [&] { sendXAClose_jms(longText.c_str(), 7, 0); },  // cut to the buffer
         header(200, 0x2005, 7, 0) + Bytes(180, 'x')},
        {kStartUp, [&] { sendXAClose_jms(nullptr, 7, 0); }, header(20, 0x2005, 7, 0)},
    };
    for (const auto &[mode, send, expected] : cases) {
        const int peer = poolPeer(5000, recoverReply(0, 0, {}));
        writeRegistry({{mode, 5000}});
        send();
        EXPECT_EQ(received(peer), expected);
        connectionSocketPool_jms(-1, nullptr, 40);
        close(peer);
    }
}

// The close asks for the registry again at once, without sleeping, as long as it cannot be
// attached; then it finds the start-up recovery port and sends.
TEST_F(Protocol, CloseWaitsForTheRegistryWithoutSleeping) {
    const int peer = poolPeer(5000, {});
    writeRegistry({{kStartUp, 5000}});
    int refused = 0;
    setOpen([&](const char *path, int flags, mode_t mode) {
        if (std::string_view(path) == "/var/orlom/XA_SWITCH_MMF" && refused < 1000) {
            refused += 1;
            errno = ENOENT;
            return -1;
        }
        return realOpen(path, flags, mode);
    });
    sendXAClose_jms(nullptr, 7, 0);
    EXPECT_EQ(refused, 1000);
    EXPECT_EQ(sleepCalls(), 0);
    EXPECT_EQ(received(peer), header(20, 0x2005, 7, 0));
}

TEST_F(Protocol, SendersMapTheFanOutResult) {
    using Sender = int (*)(const XID *, int, long);
    // sender, what the fan-out returns call by call, the result, the request codes sent
    const std::tuple<Sender, std::deque<int>, int, std::vector<int>> cases[] = {
        {sendXAPrepare_jms, {3}, 3, {0x2002}},
        {sendXAPrepare_jms, {-3}, -7, {0x2002}},
        {sendXAPrepare_jms, {101}, 101, {0x2002}},
        {sendXAPrepare_jms, {-4}, -4, {0x2002}},
        {sendXAPrepare_jms, {-99, 0}, 106, {0x2002, 0x2004}},  // no answer: rolled back
        {sendXAPrepare_jms, {-99, -99}, -7, {0x2002, 0x2004}},
        {sendXAPrepare_jms, {-99, -3}, -3, {0x2002, 0x2004}},
        {sendXAPrepare_jms, {-99, -7}, -7, {0x2002, 0x2004}},
        {sendXACommit_jms, {-3}, -7, {0x2003}},
        {sendXACommit_jms, {-99}, -7, {0x2003}},
        {sendXACommit_jms, {-4}, -4, {0x2003}},
        {sendXARollback_jms, {-3}, -7, {0x2004}},
        {sendXAForget_jms, {-99}, -7, {0x2008}},
        {sendXAForget_jms, {-6}, -6, {0x2008}},
    };
    for (const auto &[sender, results, expected, types] : cases) {
        fanOutResults = results;
        fanOutTypes.clear();
        fanOutScripted = true;
        const int rc = sender(&kXid, 1, 0);
        fanOutScripted = false;
        EXPECT_EQ(rc, expected) << testing::PrintToString(results);
        EXPECT_EQ(fanOutTypes, types);
    }
}

// Listener behaviours of the fan-out cases besides a bare answer.
constexpr int kNone = 1000;       // a port that refuses connections
constexpr int kSilent = 1001;     // never answers (its poll times out at once)
constexpr int kCloses = 1002;     // closes the connection instead of answering
constexpr int kSendFails = 1003;  // the pooled socket to it can no longer be written
constexpr int kNotAsked = 1004;   // after a failed write: must never be contacted

TEST_F(Protocol, FanOutCombinesTheAnswersInListOrder) {
    const std::pair<std::vector<int>, int> cases[] = {
        {{0, 0}, 0},
        {{3, 0}, 0},
        {{0, 3}, 3},
        {{-4, 0}, 0},
        {{0, -4}, -4},
        {{-4, -6}, -6},
        {{-6, -4}, -6},
        {{-8, kSilent}, -7},
        {{-8, kCloses}, -7},
        {{kNone, kNone}, 0},
        {{kNone, -4}, -4},
        {{0, kSendFails, kNotAsked}, 0},
        {{-5, kSendFails, kNotAsked}, -5},
        {{106, 3, 0}, 0},
    };
    for (const auto &[answers, result] : cases) {
        SCOPED_TRACE(testing::PrintToString(answers));
        std::vector<std::pair<int, int>> rows;
        std::vector<int> peers, silent;
        std::vector<std::unique_ptr<LoopbackPort>> refusing;
        for (int a : answers) {
            int port = 5000 + static_cast<int>(rows.size());
            if (a == kNone) {
                refusing.push_back(std::make_unique<LoopbackPort>(false));
                port = refusing.back()->port();
            }
            const Bytes reply = a < kNone ? answer(a) : a == kNotAsked ? answer(0) : Bytes{};
            peers.push_back(a == kNone ? -1 : poolPeer(port, reply));
            if (a == kCloses) {
                shutdown(peers.back(), SHUT_WR);
            } else if (a == kSilent) {
                silent.push_back(pooled(port));
            } else if (a == kSendFails) {
                shutdown(pooled(port), SHUT_WR);
            }
            rows.emplace_back(kBroker, port);
        }
        writeRegistry(rows);
        setPoll([&](pollfd *fds, nfds_t n, int timeout) {
            return std::ranges::count(silent, fds[0].fd) > 0 ? 0 : realPoll(fds, n, timeout);
        });

        EXPECT_EQ(callEGListeners_jms(&kXid, 1, 0, kCommit), result);

        clearScripts();
        for (size_t i = 0; i < answers.size(); ++i) {
            const int a = answers[i];
            const int row = static_cast<int>(i);
            if (a == kNotAsked) {
                EXPECT_TRUE(received(peers[i]).empty()) << i;
            } else if (a != kSendFails) {
                EXPECT_EQ(registryMode(row), a == kNone ? kDead : kBroker) << i;
                EXPECT_TRUE(a == kNone || received(peers[i]).size() == 49u) << i;
            }
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

constexpr int kSentinel = -1;  // formatID of a caller's record that nothing wrote

// Writes the reply into one end of a socket pair, closes that end, and reads the reply with
// receiveRecoverMsg_jms from the other: the XIDs, the count (kSentinel when untouched), rc.
std::tuple<XID *, int, int> receive(const Bytes &reply) {
    int pair[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
    EXPECT_EQ(write(pair[1], reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    close(pair[1]);  // whatever was not sent is never coming
    unsigned char buffer[1024];
    int count = kSentinel, rc = 12345;
    XID *xids = receiveRecoverMsg_jms(pair[0], &count, buffer, &rc);
    close(pair[0]);
    return {xids, count, rc};
}

TEST(RecoverReply, IsTakenOnlyWhenItsRecordsLieWithinItsSize) {
    const Bytes two = records({7, 8});
    const Bytes wide = flatXid(9, 65, 64, Bytes(129, 'w'));  // 129 data bytes: above 128
    const Bytes negative = flatXid(9, -1, 10, Bytes(9, 'n'));
    // the reply, rc, records returned (kSentinel: null, and the count untouched)
    const std::tuple<Bytes, int, int> cases[] = {
        {listOf({7, 8}), 0, 2},
        {recoverReply(0, 27, records({7})), 0, kSentinel},
        {recoverReply(-5, 27, records({7})), 0, kSentinel},
        {recoverReply(1, -1, records({7})), 0, kSentinel},
        {recoverReply(1, 0, {}), 0, kSentinel},
        {recoverReply(0x7fffffff, 54, two), -7, kSentinel},  // count above the records
        {recoverReply(2, 40, Bytes(two.begin(), two.begin() + 40)), -7, kSentinel},
        {recoverReply(1, static_cast<int>(wide.size()), wide), -7, kSentinel},
        {recoverReply(1, static_cast<int>(negative.size()), negative), -7, kSentinel},
        {recoverReply(1, 0x7fffffff, two), -7, kSentinel},  // far above what arrives
        {recoverReply(2, 54, Bytes(two.begin(), two.begin() + 30)), -7, kSentinel},
        {Bytes(6, 0), -7, kSentinel},  // closed inside the head
        {{}, -7, kSentinel},
    };
    for (const auto &[reply, rc, count] : cases) {
        SCOPED_TRACE(reply.size());
        const auto [xids, gotCount, gotRc] = receive(reply);
        EXPECT_EQ(gotRc, rc);
        EXPECT_EQ(gotCount, count);
        EXPECT_EQ(xids != nullptr, count != kSentinel);
        if (xids != nullptr && count == 2) {
            EXPECT_EQ(xids[0].formatID, 7);
            EXPECT_EQ(xids[1].formatID, 8);
            EXPECT_EQ(xids[1].gtrid_length, 2);
            EXPECT_EQ(std::string(xids[1].data, 3), "gtb");
        }
        std::free(xids);
    }
}

TEST(RecoverReply, NullArgumentsAreReplacedByTheRoutinesOwn) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const Bytes reply = listOf({5}) + answer(-4);
    ASSERT_EQ(write(pair[1], reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    XID *xids = receiveRecoverMsg_jms(pair[0], nullptr, nullptr, nullptr);
    ASSERT_NE(xids, nullptr);
    EXPECT_EQ(xids[0].formatID, 5);
    std::free(xids);
    EXPECT_EQ(receiveXARC_jms(pair[0], nullptr), -4);
}

constexpr int kRefuses = -2;  // in a list of listeners: a port that refuses connections
constexpr int kCloses1 = -3;  // closes the connection
constexpr int kEmpty = -4;    // a reply without records

TEST_F(Protocol, BrokerRecoverMergesTheListsOfTheListenersAsRequired) {
    // each listener's list or behaviour, the capacity, the result, the formatIDs of the
    // caller's first capacity + 1 records (none: a null array)
    const std::tuple<std::vector<std::vector<int>>, long, int, std::vector<int>> cases[] = {
        {{{1, 2, 3, 4, 5}}, 3, 3, {1, 2, 3, -1}},            // capacity below the list
        {{{11, 12}, {21}}, 5, 1, {21, 12, -1, -1, -1, -1}},  // a later list overwrites
        {{{11, 12}, {kCloses1}}, 3, 2, {11, 12, -1, -1}},    // count kept after a failure
        {{{11, 12}, {kEmpty}}, 3, 2, {11, 12, -1, -1}},      // and after an empty reply
        {{{kEmpty}}, 3, 0, {-1, -1, -1, -1}},
        {{{kEmpty}, {kCloses1}}, 2, -7, {-1, -1, -1}},
        {{{kRefuses}}, 2, -7, {-1, -1, -1}},
        {{{1, 2}}, 0, 0, {-1}},  // capacity 0
        {{{1, 2}}, -1, -1, {}},  // a negative capacity is the result
        {{{1, 2}}, 3, 2, {}},    // null array
    };
    for (const auto &[listeners, capacity, rc, held] : cases) {
        SCOPED_TRACE(testing::PrintToString(listeners));
        std::vector<std::pair<int, int>> rows;
        std::vector<std::unique_ptr<LoopbackPort>> refusing;
        for (const std::vector<int> &l : listeners) {
            int port = 5000 + static_cast<int>(rows.size());
            if (l[0] == kRefuses) {
                refusing.push_back(std::make_unique<LoopbackPort>(false));
                port = refusing.back()->port();
            } else {
                const int peer = poolPeer(port, l[0] == kCloses1 ? Bytes{}
                                                : l[0] == kEmpty ? recoverReply(0, 0, {})
                                                                 : listOf(l));
                shutdown(peer, SHUT_WR);
            }
            rows.emplace_back(kBroker, port);
        }
        writeRegistry(rows);
        std::vector<XID> xids(held.size());
        for (XID &x : xids) {
            x.formatID = kSentinel;
        }

        EXPECT_EQ(sendBrokerXARecover_jms(held.empty() && capacity > 0 ? nullptr : xids.data(),
                                          capacity, 1, 0),
                  rc);

        for (size_t i = 0; i < held.size(); ++i) {
            EXPECT_EQ(xids[i].formatID, held[i]) << "record " << i;
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

// Without pending or broker ports the start-up recovery port number is taken as the number
// of entries of the port list, which holds no port: nobody is asked. A start-up recovery
// whose request cannot be written is XAER_RMFAIL without a close.
TEST_F(Protocol, StartUpPortAsEntryCountAsksNobodyAndAFailedWriteSendsNoClose) {
    const int peer = poolPeer(5000, listOf({1}));
    writeRegistry({{kStartUp, 5000}});
    XID xids[2];
    EXPECT_EQ(sendBrokerXARecover_jms(xids, 2, 1, 0), -7);
    EXPECT_TRUE(received(peer).empty());
    shutdown(pooled(5000), SHUT_WR);
    EXPECT_EQ(sendStartUpXARecover_jms(xids, 1, 1, 0), -7);
    EXPECT_TRUE(received(peer).empty());
    EXPECT_EQ(registryMode(0), kStartUp);
}

}  // namespace
