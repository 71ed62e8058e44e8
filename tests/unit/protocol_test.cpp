// The listener protocol: XID flattening, the exact request bytes, the senders' mappings, the
// fan-out's combine table, recover replies refused wherever they would overrun, and the merge
// of several listeners' lists. Each listener is a socket pair pooled with its reply waiting.
#include <xajms/xajms.h>

#include <dlfcn.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "support/fakes.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"

namespace {

using namespace xajms::test;

std::vector<int> fanOutResults;  // unless empty: what the fan-out returns, call by call
std::vector<int> fanOutTypes;    // the request codes it was called with

constexpr int kStartUp = 1, kBroker = 2, kDead = 3;
constexpr int kSentinel = -1;  // formatID of a caller's record that nothing wrote
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

// One end of a socket pair that holds `reply`, after which the other end has closed.
int replying(const Bytes &reply) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    EXPECT_EQ(write(pair[1], reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    close(pair[1]);
    return pair[0];
}

class Protocol : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const std::string why = enterPrivateOrlom(); !why.empty()) {
            GTEST_SKIP() << why;
        }
    }
    void TearDown() override { clearScripts(); }
};

// A process of each mode, exact and hardened: the first start function called fixes it.
class Modes : public Protocol, public ::testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        Protocol::SetUp();
        if (!IsSkipped()) {
            ASSERT_NE(hardened() ? OrloStartSafe() : OrloStart(), nullptr);
        }
    }
    bool hardened() const { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(, Modes, ::testing::Bool(),
                         [](const auto &p) { return p.param ? "Hardened" : "Exact"; });

TEST(Codec, FlatteningKeepsWithinTheDataAreaWhateverTheLengthsSay) {
    const std::tuple<long, long, int> cases[] = {
        {64, 64, 152}, {200, 3, 152}, {-5, 2, 24}, {-5, 10, 29}, {0x7fffffffffffffffL, 9, 152}};
    for (const auto &[gtrid, bqual, size] : cases) {
        const XID xid{0, gtrid, bqual, {}};
        std::vector<unsigned char> out(160);  // what a flattening clears, exactly, for ASan
        EXPECT_EQ(flattenXIDtoJavaTypes_jms(out.data(), &xid), size) << gtrid;
    }
}

TEST_F(Protocol, EachRequestTypeIsSentByteForByte) {
    const uint64_t flags = 0x40000000;  // TMONEPHASE
    const Bytes flat = flatXid(0x1234, 3, 2, {'a', 'b', 'c', 'd', 'e'});
    const std::string text = "Cleanup Java Process", longText(300, 'x');
    // the sender, the bytes that reach the listener (the broker and start-up rows name it)
    const std::pair<std::function<void()>, Bytes> cases[] = {
        {[&] { sendXACommit_jms(&kXid, 7, flags); }, header(49, 0x2003, 7, flags) + flat},
        {[&] { sendXACommit_jms(nullptr, 7, flags); }, header(20, 0x2003, 7, flags)},
        {[&] { sendBrokerXARecover_jms(nullptr, 1, 7, flags); }, header(0, 0x2006, 7, flags)},
        {[&] { sendXAClose_jms(text.c_str(), 7, flags); },
         header(40, 0x2005, 7, flags) + Bytes(text.begin(), text.end())},
        {[&] { sendXAClose_jms(longText.c_str(), 7, 0); },  // cut to the buffer
         header(200, 0x2005, 7, 0) + Bytes(180, 'x')},
    };
    for (const auto &[send, expected] : cases) {
        const int peer = poolPeer(5000, recoverReply(0, 0, {}));
        writeRegistry({{kBroker, 5000}, {kStartUp, 5000}});
        send();
        EXPECT_EQ(received(peer), expected);
        connectionSocketPool_jms(-1, nullptr, 40);
        close(peer);
    }
}

// The close asks for the registry again at once, without sleeping, as long as it cannot be
// attached; then it finds the start-up recovery port and sends a null text as the bare header.
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

// Hardened, a prepare voted rollback rolls every listener back before the vote is returned.
TEST_P(Modes, SendersMapTheFanOutResult) {
    using Sender = int (*)(const XID *, int, long);
    enum { kExact = 1, kHardened = 2, kBoth = 3 };
    // sender, what the fan-out returns call by call, the result, the request codes sent, modes
    const std::tuple<Sender, std::vector<int>, int, std::vector<int>, int> cases[] = {
        {sendXAPrepare_jms, {3}, 3, {0x2002}, kBoth},
        {sendXAPrepare_jms, {-3}, -7, {0x2002}, kBoth},
        {sendXAPrepare_jms, {-4}, -4, {0x2002}, kBoth},
        {sendXAPrepare_jms, {-99, 0}, 106, {0x2002, 0x2004}, kBoth},  // no answer: rolled back
        {sendXAPrepare_jms, {-99, -99}, -7, {0x2002, 0x2004}, kBoth},
        {sendXAPrepare_jms, {-99, -3}, -3, {0x2002, 0x2004}, kBoth},
        {sendXAPrepare_jms, {101}, 101, {0x2002}, kExact},
        {sendXAPrepare_jms, {101, -4}, 101, {0x2002, 0x2004}, kHardened},
        {sendXAPrepare_jms, {101, -7}, -7, {0x2002, 0x2004}, kHardened},
        {sendXACommit_jms, {-4}, -4, {0x2003}, kBoth},
        {sendXACommit_jms, {100}, 100, {0x2003}, kBoth},
        {sendXARollback_jms, {-3}, -7, {0x2004}, kBoth},
        {sendXAForget_jms, {-99}, -7, {0x2008}, kBoth},
    };
    for (const auto &[sender, results, expected, types, modes] : cases) {
        if ((modes & (hardened() ? kHardened : kExact)) == 0) {
            continue;
        }
        fanOutResults = results;
        fanOutTypes.clear();
        EXPECT_EQ(sender(&kXid, 1, 0), expected) << testing::PrintToString(results);
        fanOutResults.clear();
        EXPECT_EQ(fanOutTypes, types);
    }
}

// Listeners of the fan-out cases besides a bare answer. Each listens on a port that refuses
// new connections, so that a hardened retry reaches nobody there.
constexpr int kNone = 1000;       // no pooled socket: the port refuses connections
constexpr int kCloses = 1001;     // closes the connection instead of answering
constexpr int kSendFails = 1002;  // the pooled socket to it can no longer be written
constexpr int kNotAsked = 1003;   // exact, after a failed write: must never be contacted

// Exact: a later non-negative answer overwrites, a negative one only lowers the result, a
// listener not reached leaves it, a failed write ends the fan-out, a failed read closes every
// pooled socket, later listeners' included. Hardened: the first
// rollback vote or error stands, XA_OK beats read-only and XAER_NOTA (read-only to a
// prepare), and an undelivered request is sent again on a fresh connection, else XAER_RMFAIL.
TEST_P(Modes, FanOutCombinesTheAnswersInListOrder) {
    // the answers to a prepare, the result of each mode
    const std::tuple<std::vector<int>, int, int> cases[] = {
        {{3, 0}, 0, 0},         {{0, 3}, 3, 0},        {{-4, 0}, 0, 0},
        {{0, -4}, -4, 0},       {{-4, -4}, -4, 3},     {{-4, 3}, 3, 3},
        {{-4, -6}, -6, -6},     {{-6, -4}, -6, -6},    {{100, 0}, 0, 100},
        {{0, 101}, 101, 101},   {{101, -6}, -6, 101},  {{-8, kCloses}, -7, -8},
        {{kCloses, 0}, -7, -7}, {{kNone, -4}, -4, -7}, {{0, kSendFails, kNotAsked}, 0, -7},
    };
    const LoopbackPort closed[3] = {LoopbackPort(false), LoopbackPort(false), LoopbackPort(false)};
    for (const auto &[answers, exact, hardenedResult] : cases) {
        SCOPED_TRACE(testing::PrintToString(answers));
        std::vector<std::pair<int, int>> rows;
        std::vector<int> peers;
        for (int a : answers) {  // each listener's end shut after its answer, if any
            const int port = closed[rows.size()].port();
            peers.push_back(a == kNone ? -1 : poolPeer(port, a < kNone ? answer(a) : Bytes{}));
            if (a != kNone) {
                shutdown(peers.back(), a == kSendFails ? SHUT_RDWR : SHUT_WR);
            }
            rows.emplace_back(kBroker, port);
        }
        writeRegistry(rows);

        EXPECT_EQ(callEGListeners_jms(&kXid, 1, 0, 0x2002), hardened() ? hardenedResult : exact);

        bool cleared = false;  // exact: a failed read has closed every pooled socket
        for (size_t i = 0; i < answers.size(); ++i) {
            const int a = answers[i];
            const bool lost = cleared && !hardened();  // reconnecting, it found the port refusing
            if (a != kNone && a != kSendFails) {
                const bool asked = !lost && (a != kNotAsked || hardened());
                EXPECT_EQ(received(peers[i]).size(), asked ? 49u : 0u) << i;
            }
            // Hardened, a listener whose retry found its port refusing is marked dead.
            const bool dead = a == kNone || lost || (a > kNone && hardened());
            if (a != kSendFails || hardened()) {
                EXPECT_EQ(registryMode(static_cast<int>(i)), dead ? kDead : kBroker) << i;
            }
            cleared = cleared || a == kCloses;
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
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
        {recoverReply(2, 52, Bytes(two.begin(), two.begin() + 52)), -7, kSentinel},  // data short
        {recoverReply(1, static_cast<int>(wide.size()), wide), -7, kSentinel},
        {recoverReply(1, static_cast<int>(negative.size()), negative), -7, kSentinel},
        {recoverReply(1, 0x7fffffff, two), -7, kSentinel},  // closed inside the records
        {Bytes(6, 0), -7, kSentinel},                       // closed inside the head
        {{}, -7, kSentinel},
    };
    for (const auto &[reply, rc, count] : cases) {
        SCOPED_TRACE(reply.size());
        const int fd = replying(reply);
        unsigned char buffer[1024];
        int gotCount = kSentinel, gotRc = 12345;
        XID *xids = receiveRecoverMsg_jms(fd, &gotCount, buffer, &gotRc);
        close(fd);
        EXPECT_EQ(gotRc, rc);
        EXPECT_EQ(gotCount, count);
        EXPECT_EQ(xids != nullptr, count != kSentinel);
        if (xids != nullptr && count == 2) {
            EXPECT_EQ(std::tuple(xids[0].formatID, xids[1].formatID, xids[1].gtrid_length,
                                 std::string(xids[1].data, 3)),
                      std::tuple(7L, 8L, 2L, std::string("gtb")));
        }
        std::free(xids);
    }
}

TEST(RecoverReply, NullArgumentsAreReplacedByTheRoutinesOwn) {
    const int fd = replying(listOf({5}) + answer(-4));
    XID *xids = receiveRecoverMsg_jms(fd, nullptr, nullptr, nullptr);
    ASSERT_NE(xids, nullptr);
    EXPECT_EQ(xids[0].formatID, 5);
    std::free(xids);
    EXPECT_EQ(receiveXARC_jms(fd, nullptr), -4);
}

TEST_F(Protocol, BrokerRecoverMergesTheListsOfTheListenersAsRequired) {
    const Bytes closes;  // closes the connection instead of replying
    // each listener's reply, the capacity, the result, the formatIDs of the caller's first
    // capacity + 1 records (none: a null array)
    const std::tuple<std::vector<Bytes>, long, int, std::vector<int>> cases[] = {
        {{listOf({1, 2, 3, 4, 5})}, 3, 3, {1, 2, 3, -1}},  // capacity below the list
        {{listOf({11, 12}), listOf({21})}, 5, 1, {21, 12, -1, -1, -1, -1}},  // a later list wins
        {{listOf({11, 12}), closes}, 3, 2, {11, 12, -1, -1}},  // count kept after a failure
        {{listOf({})}, 3, 0, {-1, -1, -1, -1}},
        {{listOf({}), closes}, 2, -7, {-1, -1, -1}},
        {{listOf({1, 2})}, 0, 0, {-1}},    // capacity 0
        {{listOf({1, 2})}, -1, -1, {-1}},  // a negative capacity is the result
        {{listOf({1, 2})}, 3, 2, {}},      // null array
    };
    for (const auto &[replies, capacity, rc, held] : cases) {
        SCOPED_TRACE(testing::PrintToString(held) + " capacity " + std::to_string(capacity));
        std::vector<std::pair<int, int>> rows;
        for (const Bytes &reply : replies) {
            rows.emplace_back(kBroker, 5000 + static_cast<int>(rows.size()));
            shutdown(poolPeer(rows.back().second, reply), SHUT_WR);
        }
        writeRegistry(rows);
        std::vector<XID> xids(held.size(), XID{kSentinel, 0, 0, {}});

        EXPECT_EQ(sendBrokerXARecover_jms(held.empty() ? nullptr : xids.data(), capacity, 1, 0),
                  rc);

        for (size_t i = 0; i < held.size(); ++i) {
            EXPECT_EQ(xids[i].formatID, held[i]) << "record " << i;
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

// Exact, recover always reports no XIDs. Hardened, a scan hands out the distinct XIDs of all
// listeners in the order of the XIDs, at most count a call; a reply that cannot be had fails it.
TEST_P(Modes, RecoverScanHandsOutTheListenersXidsOnlyWhenHardened) {
    // the flags, the count, the result of each mode, the formatIDs stored when hardened
    const std::tuple<long, long, int, int, std::vector<int>> calls[] = {
        {TMSTARTRSCAN, 2, 0, 2, {1, 2}},
        {TMNOFLAGS, 2, 0, 2, {3, 4}},
        {TMENDRSCAN, 2, 0, 0, {}},
        {TMNOFLAGS, 2, 0, XAER_INVAL, {}},  // no scan open
        {TMSTARTRSCAN | TMENDRSCAN, 8, 0, 4, {1, 2, 3, 4}},
        {TMSTARTRSCAN, -1, 0, XAER_INVAL, {}},
        {TMSTARTRSCAN, 8, 0, XAER_RMFAIL, {}},  // the listeners have no reply left
    };
    const LoopbackPort closed[2] = {LoopbackPort(false), LoopbackPort(false)};
    const int replies = hardened() ? 4 : 6;  // one for each call that asks the listeners
    std::vector<std::pair<int, int>> rows;
    for (const std::vector<int> &ids : {std::vector{3, 1, 2}, std::vector{4, 2}}) {
        Bytes all;
        for (int r = 0; r < replies; ++r) {
            all = all + listOf(ids);
        }
        rows.emplace_back(kBroker, closed[rows.size()].port());
        shutdown(poolPeer(rows.back().second, all), SHUT_WR);
    }
    writeRegistry(rows);
    for (const auto &[flags, count, exact, hardenedRc, ids] : calls) {
        SCOPED_TRACE(std::to_string(flags) + " count " + std::to_string(count));
        std::vector<XID> xids(8, XID{kSentinel, 0, 0, {}});
        EXPECT_EQ(xa_recover_entry_jms(xids.data(), count, 1, flags),
                  hardened() ? hardenedRc : exact);
        for (size_t i = 0; i < xids.size() && hardened(); ++i) {
            EXPECT_EQ(xids[i].formatID, i < ids.size() ? ids[i] : kSentinel) << i;
        }
    }
}

// Without pending or broker ports the start-up recovery port number is taken as the number
// of entries of the port list, which holds no port: nobody is asked. A start-up recovery
// whose request cannot be written is XAER_RMFAIL without a close.
TEST_F(Protocol, StartUpPortAsEntryCountAsksNobodyAndAFailedWriteSendsNoClose) {
    const LoopbackPort listening;  // would take a close on a new connection, which marks it dead
    const int peer = poolPeer(listening.port(), listOf({1}));
    writeRegistry({{kStartUp, listening.port()}});
    XID xids[2];
    EXPECT_EQ(sendBrokerXARecover_jms(xids, 2, 1, 0), -7);
    EXPECT_TRUE(received(peer).empty());
    close(peer);  // the pooled socket can no longer be written
    EXPECT_EQ(sendStartUpXARecover_jms(xids, 1, 1, 0), -7);
    EXPECT_EQ(registryMode(0), kStartUp);
}

// A start-up recovery that gets no answer is XAER_RMFAIL, and still sends the close where it
// finds the port: without a start-up row it looks five times a second apart, and the close
// five times more; a refused port is asked for a socket twice (three attempts a second apart
// each, a second after each), and once more by the close; a listener that closes the
// connection unanswered takes the close on a new connection and is marked dead.
TEST_F(Protocol, StartUpRecoveryWithoutAnAnswerIsXaerRmfail) {
    const LoopbackPort listening, refusing(false);
    // the registry's row (mode, port), whether a silent peer is pooled, the seconds slept and
    // the row's mode afterwards
    const std::tuple<int, int, bool, int, int> cases[] = {
        {kBroker, listening.port(), false, 10, kBroker},
        {kStartUp, refusing.port(), false, 11, kStartUp},
        {kStartUp, listening.port(), true, 0, kDead},
    };
    for (const auto &[mode, port, silent, slept, modeAfter] : cases) {
        SCOPED_TRACE(port);
        writeRegistry({{mode, port}});
        if (silent) {
            shutdown(poolPeer(port, {}), SHUT_WR);
        }
        const int sleeps = sleepCalls();
        XID xids[1];
        EXPECT_EQ(sendStartUpXARecover_jms(xids, 1, 1, 0), -7);
        EXPECT_EQ(sleepCalls() - sleeps, slept);
        EXPECT_EQ(registryMode(0), modeAfter);
    }
}

}  // namespace

// Interposed over the library's fan-out, which the senders reach through the dynamic linker;
// forwards to it while no results are scripted.
extern "C" int callEGListeners_jms(const XID *xid, int rmid, long flags, int msgType) {
    using Fn = int (*)(const XID *, int, long, int);
    static auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "callEGListeners_jms"));
    if (fanOutResults.empty()) {
        return real(xid, rmid, flags, msgType);
    }
    fanOutTypes.push_back(msgType);
    const size_t call = fanOutTypes.size() - 1;
    return call < fanOutResults.size() ? fanOutResults[call] : 0;
}
