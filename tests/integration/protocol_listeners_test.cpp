// Every sender against one, two and three xajms-listener processes registered in the test's
// private /var/orlom: real sockets, the real registry file, the listeners' own logs.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>
#include <memory>
#include <string>
#include <vector>

#include "support/listener_process.h"
#include "support/orlom.h"

namespace {

using xajms::test::ListenerProcess;
using Args = std::vector<std::string>;
using Listeners = std::vector<std::unique_ptr<ListenerProcess>>;

#define SKIP_WITHOUT_PEERS()                                        \
    if (xajms::test::listenerPath().empty()) {                      \
        GTEST_SKIP() << "xajms-listener is not part of this build"; \
    }                                                               \
    if (const auto why = xajms::test::enterPrivateOrlom(); !why.empty()) { \
        GTEST_SKIP() << why;                                        \
    }

// Starts one listener per argument list; false when one of them did not come up.
bool start(Listeners &listeners, const std::vector<Args> &args) {
    for (const Args &a : args) {
        listeners.push_back(std::make_unique<ListenerProcess>(a));
        if (!listeners.back()->started()) {
            return false;
        }
    }
    return true;
}

// The log line's request type: "#n TYPE ...".
std::string typeOf(const std::optional<std::string> &line) {
    if (!line) {
        return "(none)";
    }
    const auto blank = line->find(' ');
    return line->substr(blank + 1, line->find(' ', blank + 1) - blank - 1);
}

XID sampleXid() {
    XID xid{};
    xid.formatID = 0x1234;
    xid.gtrid_length = 3;
    xid.bqual_length = 2;
    std::memcpy(xid.data, "abcde", 5);
    return xid;
}

TEST(ProtocolListeners, CompletionSendersCombineEveryListenersAnswer) {
    SKIP_WITHOUT_PEERS();
    using Sender = int (*)(const XID *, int, long);
    struct Case {
        const char *name;
        Sender sender;
        const char *option;
        std::vector<std::string> codes;  // one listener each
        int expected;
    } cases[] = {
        {"prepare, one listener", sendXAPrepare_jms, "--prepare", {"3"}, 3},
        {"commit rmerr, one listener", sendXACommit_jms, "--commit", {"-3"}, -7},
        {"prepare, two listeners", sendXAPrepare_jms, "--prepare", {"0", "3"}, 3},
        {"commit, two listeners", sendXACommit_jms, "--commit", {"-4", "0"}, 0},
        {"rollback, three listeners", sendXARollback_jms, "--rollback", {"0", "-4", "-6"}, -6},
        {"forget, three listeners", sendXAForget_jms, "--forget", {"-6", "-4", "0"}, 0},
    };
    const XID xid = sampleXid();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Args> args;
        for (const std::string &code : c.codes) {
            args.push_back({"--mode", "broker", c.option, code});
        }
        Listeners listeners;
        ASSERT_TRUE(start(listeners, args));

        EXPECT_EQ(c.sender(&xid, 1, 0), c.expected);

        const std::string type = std::string(c.option).substr(2);
        for (auto &l : listeners) {
            EXPECT_EQ(typeOf(l->nextLine()), type);
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

TEST(ProtocolListeners, BrokerRecoveryKeepsTheLastListenersList) {
    SKIP_WITHOUT_PEERS();
    struct Case {
        std::vector<std::vector<std::string>> xids;  // --xid values, one list per listener
        int expected;
        std::vector<long> held;  // formatIDs of the caller's first four records
    } cases[] = {
        {{{"1:6731:62", "2:6732:62"}}, 2, {1, 2, -1, -1}},
        {{{"1:6731:62", "2:6732:62"}, {"3:6733:62"}}, 1, {3, 2, -1, -1}},
        {{{"1:67:62"}, {"2:67:62"}, {"4:67:62", "5:67:62", "6:67:62"}}, 3, {4, 5, 6, -1}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.xids.size());
        std::vector<Args> args;
        for (const auto &list : c.xids) {
            Args a{"--mode", "broker"};
            for (const std::string &x : list) {
                a.insert(a.end(), {"--xid", x});
            }
            args.push_back(a);
        }
        Listeners listeners;
        ASSERT_TRUE(start(listeners, args));
        std::vector<XID> held(4);
        for (XID &x : held) {
            x.formatID = -1;
        }

        EXPECT_EQ(sendBrokerXARecover_jms(held.data(), 4, 1, 0), c.expected);

        for (std::size_t i = 0; i < held.size(); ++i) {
            EXPECT_EQ(held[i].formatID, c.held[i]) << "record " << i;
        }
        for (auto &l : listeners) {
            EXPECT_EQ(typeOf(l->nextLine()), "recover");
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

// The start-up recovery and the close go to the recovery listener only, which ends its
// process on the close; the broker listeners beside it hear nothing.
TEST(ProtocolListeners, StartUpRecoveryAndCloseEndOnlyTheRecoveryListener) {
    SKIP_WITHOUT_PEERS();
    struct Case {
        const char *name;
        int brokers;
        std::function<int()> send;
        int expected;
        std::vector<std::string> logged;
    } cases[] = {
        {"start-up recovery",
         0,
         [] {
             XID xids[2];
             return sendStartUpXARecover_jms(xids, 2, 1, 0);
         },
         1,
         {"recover", "close"}},
        {"start-up recovery beside two brokers",
         2,
         [] {
             XID xids[2];
             return sendStartUpXARecover_jms(xids, 2, 1, 0);
         },
         1,
         {"recover", "close"}},
        {"close beside one broker",
         1,
         [] { return sendXAClose_jms("Cleanup Java Process", 1, 0); },
         0,
         {"close"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Listeners brokers;
        ASSERT_TRUE(start(brokers, std::vector<Args>(static_cast<std::size_t>(c.brokers),
                                                     Args{"--mode", "broker"})));
        ListenerProcess recovery({"--mode", "recovery", "--xid", "7:6731:62"});
        ASSERT_TRUE(recovery.started());

        EXPECT_EQ(c.send(), c.expected);

        for (const std::string &type : c.logged) {
            EXPECT_EQ(typeOf(recovery.nextLine()), type);
        }
        EXPECT_EQ(recovery.waitForExit(), 0);
        for (auto &b : brokers) {
            EXPECT_FALSE(b->nextLine(100).has_value());
        }
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

}  // namespace
