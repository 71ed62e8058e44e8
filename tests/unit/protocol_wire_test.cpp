// The exact bytes that reach a listener for each request type, sent by the real senders.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"

namespace {

using namespace xajms::test;

Bytes header(int msgSize, int msgType, int rmid, uint64_t flags) {
    Bytes b;
    putBig(b, static_cast<uint32_t>(msgSize), 4);
    putBig(b, static_cast<uint32_t>(msgType), 4);
    putBig(b, static_cast<uint32_t>(rmid), 4);
    putBig(b, flags, 8);
    return b;
}

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(Wire, EachRequestTypeIsSentByteForByte) {
    if (const auto why = enterPrivateOrlom(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    XID xid{};
    xid.formatID = 0x1234;
    xid.gtrid_length = 3;
    xid.bqual_length = 2;
    std::memcpy(xid.data, "abcde", 5);
    const Bytes flat = flatXid(0x1234, 3, 2, {'a', 'b', 'c', 'd', 'e'});
    const uint64_t flags = 0x40000000;  // TMONEPHASE
    XID none[1];
    const std::string longText(300, 'x');
    struct Case {
        const char *name;
        int mode;  // of the listener's registry row
        std::function<void()> send;
        Bytes expected;
    } cases[] = {
        {"prepare", 2, [&] { sendXAPrepare_jms(&xid, 7, flags); },
         header(49, 0x2002, 7, flags) + flat},
        {"commit", 2, [&] { sendXACommit_jms(&xid, 7, flags); },
         header(49, 0x2003, 7, flags) + flat},
        {"rollback", 2, [&] { sendXARollback_jms(&xid, 7, flags); },
         header(49, 0x2004, 7, flags) + flat},
        {"forget", 2, [&] { sendXAForget_jms(&xid, 7, flags); },
         header(49, 0x2008, 7, flags) + flat},
        {"commit without xid", 2, [&] { sendXACommit_jms(nullptr, 7, flags); },
         header(20, 0x2003, 7, flags)},
        {"recover", 2, [&] { sendBrokerXARecover_jms(none, 1, 7, flags); },
         header(0, 0x2006, 7, flags)},
        {"close", 1, [&] { sendXAClose_jms("Cleanup Java Process", 7, flags); },
         header(40, 0x2005, 7, flags) + Bytes{'C', 'l', 'e', 'a', 'n', 'u', 'p', ' ', 'J', 'a',
                                              'v', 'a', ' ', 'P', 'r', 'o', 'c', 'e', 's', 's'}},
        {"close, text cut to the request buffer", 1,
         [&] { sendXAClose_jms(longText.c_str(), 7, 0); },
         header(200, 0x2005, 7, 0) + Bytes(180, 'x')},
        {"close without text", 1, [&] { sendXAClose_jms(nullptr, 7, 0); },
         header(20, 0x2005, 7, 0)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        occupyDescriptorZero();
        const bool recover = std::string(c.name) == "recover";
        ScriptedListener listener({recover ? recoverReply(0, 0, {}) : answer(0)});
        writeRegistry({{c.mode, listener.port()}});
        c.send();
        const std::vector<Bytes> got = listener.requests(1);
        ASSERT_FALSE(got.empty());
        EXPECT_EQ(got[0], c.expected);
        connectionSocketPool_jms(-1, nullptr, 40);
    }
}

}  // namespace
