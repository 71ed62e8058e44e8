// Every sender against one, two and three xajms-listener processes registered in the test's
// private /var/orlom: real sockets, the real registry file, the listeners' own logs.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/listener_process.h"
#include "support/loopback.h"
#include "support/orlom.h"

namespace {

using xajms::test::ListenerProcess;
using Args = std::vector<std::string>;

// The request type of a log line "#n TYPE ...".
std::string typeOf(const std::optional<std::string> &line) {
    return line ? line->substr(line->find(' ') + 1,
                               line->find(' ', line->find(' ') + 1) - line->find(' ') - 1)
                : "(none)";
}

TEST(ProtocolListeners, EverySenderCombinesOneTwoAndThreeListeners) {
    if (xajms::test::listenerPath().empty()) {
        GTEST_SKIP() << "xajms-listener is not part of this build";
    }
    if (const auto why = xajms::test::enterPrivateOrlom(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    struct Case {
        std::vector<Args> brokers;
        std::vector<int> expected;  // prepare, commit, rollback, forget, broker recover
        long firstHeld;             // formatID of the caller's first record after the recover
    } cases[] = {
        {{{"--prepare", "3", "--commit", "-3", "--xid", "1:6731:62", "--xid", "2:6732:62"}},
         {3, -7, 0, 0, 2},
         1},
        {{{"--prepare", "3", "--commit", "-4", "--rollback", "-6", "--xid", "1:67:62"},
          {"--rollback", "-4", "--xid", "3:67:62", "--xid", "4:67:62"}},
         {0, 0, -6, 0, 2},
         3},
        {{{"--forget", "-6", "--xid", "1:67:62"}, {"--prepare", "-4"}, {"--forget", "-4"}},
         {0, 0, 0, -4, 1},  // a later 0 overwrites -4; -6, 0, -4 ends at -4
         1},
    };
    XID xid{};
    xid.gtrid_length = 3;
    std::memcpy(xid.data, "abc", 3);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.brokers.size());
        // The pool's clears close descriptor 0 of emptied slots: keep it away from the pipes
        // of the listeners and from the library's sockets.
        xajms::test::occupyDescriptorZero();
        std::vector<std::unique_ptr<ListenerProcess>> brokers;
        for (Args a : c.brokers) {
            a.insert(a.begin(), {"--mode", "broker"});
            brokers.push_back(std::make_unique<ListenerProcess>(a));
            ASSERT_TRUE(brokers.back()->started());
        }
        ListenerProcess recovery({"--mode", "recovery", "--xid", "7:6731:62"});
        ASSERT_TRUE(recovery.started());
        XID held[4];
        held[0].formatID = -1;

        const std::vector<int> got{sendXAPrepare_jms(&xid, 1, 0), sendXACommit_jms(&xid, 1, 0),
                                   sendXARollback_jms(&xid, 1, 0), sendXAForget_jms(&xid, 1, 0),
                                   sendBrokerXARecover_jms(held, 4, 1, 0)};
        const long firstHeld = held[0].formatID;
        const int startUp = sendStartUpXARecover_jms(held, 4, 1, 0);

        EXPECT_EQ(got, c.expected);
        EXPECT_EQ(firstHeld, c.firstHeld);
        for (auto &b : brokers) {
            for (const char *type : {"prepare", "commit", "rollback", "forget", "recover"}) {
                EXPECT_EQ(typeOf(b->nextLine()), type);
            }
        }
        // The start-up recovery and its close reach the recovery listener alone, which ends.
        EXPECT_EQ(startUp, 1);
        EXPECT_EQ(held[0].formatID, 7);
        EXPECT_EQ(typeOf(recovery.nextLine()), "recover");
        EXPECT_EQ(typeOf(recovery.nextLine()), "close");
        EXPECT_EQ(recovery.waitForExit(), 0);
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

}  // namespace
