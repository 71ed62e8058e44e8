// xajms-listener on its own: its command line, its answers and misbehaviour driven over a raw
// socket, the bytes of its recover reply, and its row in a registry file under a temporary
// directory, filled at start-up and emptied on every way out.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/listener_process.h"
#include "support/trace_file.h"

namespace {

using xajms::test::ListenerProcess;
using xajms::test::TempDir;
using Bytes = std::vector<unsigned char>;
using Args = std::vector<std::string>;

constexpr int kPrepare = 0x2002;
constexpr int kCommit = 0x2003;
constexpr int kRollback = 0x2004;
constexpr int kClose = 0x2005;
constexpr int kRecover = 0x2006;
constexpr int kForget = 0x2008;

#define SKIP_WITHOUT_LISTENER()                                     \
    if (xajms::test::listenerPath().empty()) {                      \
        GTEST_SKIP() << "xajms-listener is not part of this build"; \
    }

void put(Bytes &b, uint64_t v, int width) {
    for (int i = width - 1; i >= 0; --i) {
        b.push_back(static_cast<unsigned char>(v >> (8 * i)));
    }
}

Bytes flatXid(int64_t format, const std::string &gtrid, const std::string &bqual) {
    Bytes b;
    put(b, static_cast<uint64_t>(format), 8);
    put(b, gtrid.size(), 8);
    put(b, bqual.size(), 8);
    b.insert(b.end(), gtrid.begin(), gtrid.end());
    b.insert(b.end(), bqual.begin(), bqual.end());
    return b;
}

// A request as the library writes it; msgSize is 20 + the payload unless given.
Bytes request(int type, int rmid, uint64_t flags, const Bytes &payload = {}, int msgSize = -1) {
    Bytes b;
    put(b, static_cast<uint32_t>(msgSize < 0 ? 20 + static_cast<int>(payload.size()) : msgSize), 4);
    put(b, static_cast<uint32_t>(type), 4);
    put(b, static_cast<uint32_t>(rmid), 4);
    put(b, flags, 8);
    b.insert(b.end(), payload.begin(), payload.end());
    return b;
}

Bytes code(int32_t c) {
    Bytes b;
    put(b, static_cast<uint32_t>(c), 4);
    return b;
}

Bytes text(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

// A blocking loopback connection with a 5-second receive limit; read() and write() only.
class Client {
  public:
    explicit Client(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        const timeval limit{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    }
    ~Client() { close(fd_); }
    bool connected() const { return connected_; }
    void send(const Bytes &b) { ASSERT_EQ(write(fd_, b.data(), b.size()), ssize_t(b.size())); }
    // Up to n bytes: fewer only when the listener closed the connection (or 5 s passed).
    Bytes read(size_t n) {
        Bytes b(n);
        size_t got = 0;
        while (got < n) {
            const ssize_t r = ::read(fd_, b.data() + got, n - got);
            if (r <= 0) {
                break;
            }
            got += static_cast<size_t>(r);
        }
        b.resize(got);
        return b;
    }
    // True when the listener has closed the connection (a read returns 0 bytes).
    bool closedByListener() {
        unsigned char c;
        return ::read(fd_, &c, 1) == 0;
    }

  private:
    int fd_;
    bool connected_ = false;
};

// The registry file, read whole: header and rows in the host's byte order.
struct Registry {
    std::string bytes;
    explicit Registry(const std::string &path) {
        std::ifstream in(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    int32_t at(size_t offset) const {
        int32_t v = 0;
        std::memcpy(&v, bytes.data() + offset, 4);
        return v;
    }
    int32_t count() const { return at(36); }
    int32_t field(int row, size_t offset) const { return at(40 + 152 * size_t(row) + offset); }
    std::string name(int row) const {
        return bytes.substr(40 + 152 * size_t(row) + 24, 128).c_str();
    }
};

// Writes a formatted registry with the given row modes (ports 1000 + row) and row count.
void writeRegistry(const std::string &path, const std::vector<int32_t> &modes, int32_t count) {
    std::string b(76040, '\0');
    std::memcpy(b.data(), "/var/orlom/XA_SWITCH_MMF", 24);
    std::memcpy(b.data() + 36, &count, 4);
    for (size_t r = 0; r < modes.size(); ++r) {
        const int32_t pid = 1, port = 1000 + int32_t(r);
        std::memcpy(b.data() + 40 + 152 * r, &pid, 4);
        std::memcpy(b.data() + 40 + 152 * r + 8, &port, 4);
        std::memcpy(b.data() + 40 + 152 * r + 12, &modes[r], 4);
    }
    std::ofstream(path, std::ios::binary) << b;
}

TEST(ListenerTool, RefusesBadCommandLinesWithOneLineAndStatusTwo) {
    SKIP_WITHOUT_LISTENER();
    const Args cases[] = {
        {"--bogus"},
        {"stray"},
        {"--port"},
        {"--port", "65536"},
        {"--port", "-1"},
        {"--mode", "dead"},
        {"--prepare", "1x"},
        {"--commit", "4294967296"},
        {"--late", "commit"},
        {"--late", "commit:-1"},
        {"--late", "close:1"},
        {"--never", "0"},
        {"--drop", "x"},
        {"--xid", "1:abc:"},
        {"--xid", "1:ab"},
        {"--xid", "0xg:aa:bb"},
        {"--name", std::string(129, 'n')},
        {"--no-register=1"},
        {"--registry", ""},
    };
    for (const Args &args : cases) {
        SCOPED_TRACE(args.front() + (args.size() > 1 ? " " + args[1] : ""));
        const auto run = xajms::test::runListener(args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.starts_with("xajms-listener: ")) << run.err;
        EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
    }
}

TEST(ListenerTool, HelpExplainsEveryOption) {
    SKIP_WITHOUT_LISTENER();
    const auto run = xajms::test::runListener({"--help"});
    EXPECT_EQ(run.status, 0);
    for (const char *option :
         {"--port", "--mode", "--name", "--registry", "--no-register", "--prepare", "--commit",
          "--rollback", "--forget", "--xid", "--recover-count", "--recover-size", "--late",
          "--never", "--drop", "--half", "--log", "--quiet", "--help"}) {
        EXPECT_NE(run.out.find(std::string("  ") + option + " "), std::string::npos) << option;
    }
}

TEST(ListenerTool, AnswersAndLogsEachRequestInTurn) {
    SKIP_WITHOUT_LISTENER();
    ListenerProcess listener({"--no-register", "--prepare", "3", "--commit", "-3", "--rollback",
                              "106", "--forget", "-4", "--late", "forget:0.1"});
    ASSERT_TRUE(listener.started());
    const Bytes xid = flatXid(0x1234, "abc", "de");
    struct Case {
        Bytes sent;
        Bytes answer;
        std::string line;
    } cases[] = {
        {request(kPrepare, 1, 0, xid), code(3),
         "#1 prepare rmid=1 flags=0x0000000000000000 xid=0x1234:616263:6465 -> 3"},
        {request(kCommit, -2, 0x40000000, flatXid(-1, "", "")), code(-3),
         "#2 commit rmid=-2 flags=0x0000000040000000 xid=-0x1:: -> -3"},
        {request(kRollback, 0, 0), code(106),
         "#3 rollback rmid=0 flags=0x0000000000000000 xid=none -> 106"},
        {request(kForget, 5, 0, xid), code(-4),
         "#4 forget rmid=5 flags=0x0000000000000000 xid=0x1234:616263:6465 -> late 0.100s -4"},
        {request(kPrepare, 1, 0, Bytes(xid.begin(), xid.end() - 1)), code(3),
         "#5 prepare rmid=1 flags=0x0000000000000000 "
         "xid=malformed:00000000000012340000000000000003000000000000000261626364 -> 3"},
        {request(kClose, 1, 0, text("Bye")),
         {},
         "#6 close rmid=1 flags=0x0000000000000000 text=\"Bye\" -> ignored"},
        {request(0x2009, 1, 0),
         {},
         "#7 unknown type=0x2009 rmid=1 flags=0x0000000000000000 msgSize=20 -> drop"},
    };
    Client client(listener.port());
    ASSERT_TRUE(client.connected());
    for (const Case &c : cases) {
        SCOPED_TRACE(c.line);
        client.send(c.sent);
        EXPECT_EQ(client.read(c.answer.size()), c.answer);
        EXPECT_EQ(listener.nextLine(), c.line);
    }
    EXPECT_TRUE(client.closedByListener());  // after the unknown request
}

TEST(ListenerTool, MisbehavesForTheChosenTypeOrRequestNumber) {
    SKIP_WITHOUT_LISTENER();
    const Bytes xid = flatXid(1, "g", "b");
    struct Case {
        const char *what;
        Args args;
        std::vector<Bytes> sent;  // all on one connection, before anything is read
        Bytes answers;            // everything that comes back
        bool closed;              // the listener closes the connection afterwards
    } cases[] = {
        {"never leaves the connection open for the next request",
         {"--never", "prepare", "--commit", "7"},
         {request(kPrepare, 1, 0, xid), request(kCommit, 1, 0, xid)},
         code(7),
         false},
        {"a late answer keeps its place before later ones",
         {"--late", "commit:0.2", "--commit", "5", "--rollback", "6"},
         {request(kCommit, 1, 0, xid), request(kRollback, 1, 0, xid)},
         Bytes{0, 0, 0, 5, 0, 0, 0, 6},
         false},
        {"drop by request number",
         {"--drop", "2"},
         {request(kPrepare, 1, 0, xid), request(kCommit, 1, 0, xid)},
         code(0),
         true},
        {"half an answer, then closed",
         {"--half", "forget", "--forget", "-4"},
         {request(kForget, 1, 0, xid)},
         Bytes{0xFF, 0xFF},
         true},
        {"a request number wins over the type",
         {"--drop", "commit", "--late", "1:0", "--commit", "5"},
         {request(kCommit, 1, 0, xid), request(kCommit, 1, 0, xid)},
         code(5),
         true},
        {"drop of a recover", {"--drop", "recover"}, {request(kRecover, 1, 0, {}, 0)}, {}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Args args = c.args;
        args.push_back("--no-register");
        args.push_back("--quiet");
        ListenerProcess listener(args);
        ASSERT_TRUE(listener.started());
        Client client(listener.port());
        for (const Bytes &b : c.sent) {
            client.send(b);
        }
        EXPECT_EQ(client.read(c.answers.size()), c.answers);
        if (c.closed) {
            EXPECT_TRUE(client.closedByListener());
        }
    }
}

TEST(ListenerTool, RecoverReplyCarriesTheConfiguredXidsAndNothingMore) {
    SKIP_WITHOUT_LISTENER();
    const Bytes two = flatXid(0x1234, "abc", "de");
    const Bytes none = flatXid(-1, "", "");
    auto reply = [](int32_t count, int32_t size, const std::vector<Bytes> &records) {
        Bytes b = code(kRecover);
        put(b, static_cast<uint32_t>(count), 4);
        put(b, 0, 4);
        put(b, static_cast<uint32_t>(size), 4);
        for (const Bytes &r : records) {
            b.insert(b.end(), r.begin(), r.end());
        }
        return b;
    };
    struct Case {
        Args args;
        Bytes expected;
    } cases[] = {
        {{}, reply(0, 0, {})},
        {{"--xid", "0x1234:616263:6465", "--xid", "-1::"}, reply(2, 53, {two, none})},
        {{"--xid", "0x1234:616263:6465", "--recover-count", "5", "--recover-size", "-3"},
         reply(5, -3, {two})},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        Args args = c.args;
        args.insert(args.end(), {"--no-register", "--quiet", "--commit", "9"});
        ListenerProcess listener(args);
        ASSERT_TRUE(listener.started());
        Client client(listener.port());
        client.send(request(kRecover, 1, 0x800000, {}, 0));
        EXPECT_EQ(client.read(c.expected.size()), c.expected);
        // The next answer on the connection is the commit's: no stray byte of the reply.
        client.send(request(kCommit, 1, 0));
        EXPECT_EQ(client.read(4), code(9));
    }
}

TEST(ListenerTool, ServesOtherConnectionsWhileAnAnswerIsHeld) {
    SKIP_WITHOUT_LISTENER();
    ListenerProcess listener({"--no-register", "--quiet", "--late", "prepare:30", "--commit", "9"});
    ASSERT_TRUE(listener.started());
    Client held(listener.port());
    held.send(request(kPrepare, 1, 0));
    std::vector<std::unique_ptr<Client>> others;
    for (int i = 0; i < 40; ++i) {
        others.push_back(std::make_unique<Client>(listener.port()));
        others.back()->send(request(kCommit, 1, 0));
    }
    for (auto &c : others) {
        EXPECT_EQ(c->read(4), code(9));
    }
    EXPECT_EQ(listener.stop(), 0);  // a pending timer does not delay the exit
}

TEST(ListenerTool, RegistersItsRowAndEmptiesItOnEveryWayOut) {
    SKIP_WITHOUT_LISTENER();
    const std::function<int(ListenerProcess &)> sigterm = [](ListenerProcess &l) {
        return l.stop();
    };
    const std::function<int(ListenerProcess &)> sigint = [](ListenerProcess &l) {
        return l.stop(SIGINT);
    };
    const std::function<int(ListenerProcess &)> cleanup = [](ListenerProcess &l) {
        Client(l.port()).send(request(kClose, 1, 0, text("Cleanup Java Process")));
        return l.waitForExit().value_or(-1);
    };
    struct Case {
        const char *what;
        std::function<void(const std::string &)> before;
        const char *mode;
        int32_t modeValue;
        int row;
        int32_t count;
        std::function<int(ListenerProcess &)> exit;
    } cases[] = {
        {"absent file is created", nullptr, "broker", 2, 0, 1, sigterm},
        {"short unsigned file is formatted",
         [](const std::string &p) { std::ofstream(p) << "not a registry"; }, "pending", 4, 0, 1,
         sigint},
        {"first empty row below the count",
         [](const std::string &p) {
             writeRegistry(p, {2, 0, 2}, 3);
         },
         "recovery", 1, 1, 3, cleanup},
        {"a dead row is not reused",
         [](const std::string &p) {
             writeRegistry(p, {2, 3}, 2);
         },
         "broker", 2, 2, 3, sigterm},
        {"a negative count is raised", [](const std::string &p) { writeRegistry(p, {}, -1); },
         "pending", 4, 0, 1, cleanup},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        const std::string path = dir.path() + "/XA_SWITCH_MMF";
        if (c.before) {
            c.before(path);
        }
        ListenerProcess listener(
            {"--registry", path, "--mode", c.mode, "--name", "EG1", "--quiet"});
        ASSERT_TRUE(listener.started());
        const Registry registered(path);
        ASSERT_EQ(registered.bytes.size(), 76040u);
        EXPECT_EQ(registered.bytes.substr(0, 25), std::string("/var/orlom/XA_SWITCH_MMF", 25));
        EXPECT_EQ(registered.count(), c.count);
        EXPECT_EQ(registered.field(c.row, 0), listener.pid());
        EXPECT_EQ(registered.field(c.row, 8), listener.port());
        EXPECT_EQ(registered.field(c.row, 12), c.modeValue);
        EXPECT_EQ(registered.name(c.row), "EG1");

        EXPECT_EQ(c.exit(listener), 0);
        Registry emptied(path);
        EXPECT_EQ(emptied.field(c.row, 0), 0);
        EXPECT_EQ(emptied.field(c.row, 8), 0);
        EXPECT_EQ(emptied.field(c.row, 12), 0);
        // Nothing else in the file changes.
        const size_t row = 40 + 152 * size_t(c.row);
        emptied.bytes.replace(row, 16, registered.bytes, row, 16);
        EXPECT_EQ(emptied.bytes, registered.bytes);
    }
}

}  // namespace
