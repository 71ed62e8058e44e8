// Faults from outside the library, one table per family: listeners that misbehave, registry
// files that are missing or damaged, and a process short of memory or of a writable trace
// directory. Each case runs in a child process of its own, so that it starts from the state
// of a freshly loaded library and a crash ends only that case; it checks the XA codes and that
// no descriptor is left open beyond those the library keeps on purpose.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "registry/registry.h"
#include "support/fakes.h"
#include "support/listener_process.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/scripted_listener.h"
#include "support/trace_file.h"

namespace {

using namespace xajms::test;
namespace registry = xajms::registry;
using Codes = std::vector<int>;

XID xid{4711, 3, 3, "gtrbql"};

// Runs the case in a child process. Returns what the case reported, "" when all held.
std::string inChild(const std::function<std::string()> &run) {
    std::FILE *out = std::tmpfile();
    const pid_t pid = fork();
    if (pid == 0) {
        (void)!unshare(CLONE_NEWNS);  // what the case mounts goes with it
        alarm(20);                    // a case that hangs is killed and reported
        std::fputs(run().c_str(), out);
        std::exit(0);  // through the exit handlers: the leak checkers look at the child too
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::string report;
    std::rewind(out);
    for (int c; (c = std::fgetc(out)) != EOF;) {
        report += static_cast<char>(c);
    }
    std::fclose(out);
    const bool killed = WIFSIGNALED(status);
    const int code = killed ? WTERMSIG(status) : WEXITSTATUS(status);
    return code == 0 ? report : report + (killed ? " signal " : " exit ") + std::to_string(code);
}

std::string compare(const char *what, const Codes &got, const Codes &want) {
    return got == want ? "" : std::string(what) + " " + testing::PrintToString(got);
}

// What a listener does with the first request it reads: the bytes it writes back, then
// whether it ends the connection, with a reset when asked; whether the library's wait for
// them ends first (the fake poll times out). Every later request gets 0, on any connection.
struct Fault {
    std::string_view answer;
    bool ends = false;
    bool resets = false;
    bool late = false;
};
constexpr Fault kAnswers{{"\0\0\0\0", 4}};

// A listener on a loopback port, in a thread of the child process.
class Listener {
  public:
    explicit Listener(Fault fault) : thread_([this, fault] { serve(fault); }) {}
    ~Listener() {
        shutdown(socket_.fd(), SHUT_RDWR);
        thread_.join();
    }
    int port() const { return socket_.port(); }
    int heard() const { return heard_; }    // requests read
    int closed() const { return closed_; }  // connections ended

  private:
    void serve(Fault fault) {
        for (int conn; (conn = accept(socket_.fd(), nullptr, nullptr)) >= 0; fault = kAnswers) {
            unsigned char request[512];
            while (read(conn, request, sizeof request) > 0 && ++heard_ > 0 &&
                   write(conn, fault.answer.data(), fault.answer.size()) >= 0 && !fault.ends) {
                fault = kAnswers;
            }
            const linger abort{1, 0};
            if (fault.resets) {
                setsockopt(conn, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
            }
            close(conn);
            closed_ += 1;
        }
    }
    LoopbackPort socket_;
    std::atomic<int> heard_{0}, closed_{0};
    std::thread thread_;
};

void mountReadOnly(const char *path) {
    mount(path, path, "none", MS_BIND, nullptr);
    mount("none", path, "none", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
}

// One broker row for a listener with the fault (or for a port that refuses connections), the
// file then damaged; two commits, whose codes, the seconds slept between retries and the
// descriptors left open once the listener is gone are compared with those wanted; where
// given, for each mode, the codes of a hardened process and the requests the listener read.
const std::function<void()> kIntact = [] {};
struct Case {
    const char *name;
    Codes codes;
    int keptOpen;
    int sleeps;
    std::function<void()> damage = kIntact;
    Fault fault = kAnswers;
    bool refuses = false;
    Codes hardened = {};                  // as codes when empty
    std::array<int, 2> heard = {-1, -1};  // exact, hardened; -1: not compared
    int hardenedKeptOpen = -1;            // as keptOpen when -1
};

// Runs the case in a process of the mode: the first start function called fixes it.
std::string commitTwice(const Case &c, bool hardened) {
    if ((hardened ? OrloStartSafe() : OrloStart()) == nullptr) {
        return "start function refused";
    }
    const int before = openDescriptors();
    const int sleeps = sleepCalls();
    int waits = 0;
    setPoll([&](pollfd *fds, nfds_t n, int timeout) {
        return c.fault.late && waits++ == 0 ? 0 : realPoll(fds, n, timeout);
    });
    Codes got;
    int heard = 0;
    {
        Listener listener(c.fault);
        LoopbackPort refusing(false);
        writeRegistry({{registry::kModeBroker, c.refuses ? refusing.port() : listener.port()}});
        c.damage();
        got = {xa_commit_entry_jms(&xid, 1, TMNOFLAGS)};
        while (c.fault.ends && listener.closed() == 0) {  // the second commit finds it ended
            std::this_thread::yield();
        }
        got.push_back(xa_commit_entry_jms(&xid, 1, TMNOFLAGS));
        heard = listener.heard();
        poolClear_jms(-1);
    }
    occupyDescriptorZero();
    const int wantHeard = c.heard[hardened ? 1 : 0];
    return compare("codes", got, hardened && !c.hardened.empty() ? c.hardened : c.codes) +
           compare("sleeps", {sleepCalls() - sleeps}, {c.sleeps}) +
           compare("descriptors left", {openDescriptors() - before},
                   {hardened && c.hardenedKeptOpen >= 0 ? c.hardenedKeptOpen : c.keptOpen}) +
           compare("requests heard", {wantHeard < 0 ? -1 : heard}, {wantHeard});
}

// Each case in a child process of its own, exact; with bothModes, hardened as well.
void commitTwiceEach(std::span<const Case> cases, bool bothModes = false) {
    for (const Case &c : cases) {
        for (const bool hardened : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (hardened ? ", hardened" : ", exact"));
            if (!hardened || bothModes) {
                EXPECT_EQ(inChild([&] { return commitTwice(c, hardened); }), "");
            }
        }
    }
}

class Faults : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const std::string why = enterPrivateOrlom(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        occupyDescriptorZero();
    }
};

// A commit reaches one broker listener that misbehaves on its first request; the second
// commit finds it well again on a fresh connection. A refused connect leaves its descriptor
// open (hardened: closes it) each of the three times the pool's get tries, a second apart; the port
// is then marked dead, so the second commit finds no listener in the fan-out's three looks.
// Hardened, a request whose connection ended without an answer is sent again on a fresh connection,
// a listener that was not reached is XAER_RMFAIL, and no commit is XA_OK unheard; exact, a commit
// written to a connection the listener has reset is XA_OK though nobody read it.
TEST_F(Faults, ListenerFaultsGiveTheCodesOfEachMode) {
    const Codes failsOnce = {XAER_RMFAIL, XA_OK}, ok = {XA_OK, XA_OK};
    const int garbage = static_cast<int>(0xdeadbeefu);
    const Case cases[] = {
        {"answers", ok, 1, 0, kIntact, kAnswers, false, {}, {2, 2}},
        {"dies before answering", failsOnce, 1, 0, kIntact, {"", true}, false, ok, {2, 3}},
        {"answers late", failsOnce, 1, 0, kIntact, {{"\0\0\0d", 4}, false, false, true}},
        {"answers garbage", {garbage, XA_OK}, 1, 0, kIntact, {"\xde\xad\xbe\xef"}},
        {"answers half and closes", failsOnce, 1, 0, kIntact, {{"\0\0", 2}, true}, false, ok},
        {"resets the connection", failsOnce, 1, 0, kIntact, {"", true, true}, false, ok, {2, 3}},
        {"answers, then resets",
         ok,
         1,
         0,
         kIntact,
         {{"\0\0\0\0", 4}, true, true},
         false,
         {},
         {1, 2}},
        {"refuses connections",
         {XA_OK, XAER_RMFAIL},
         4,
         6,
         kIntact,
         kAnswers,
         true,
         {XAER_RMFAIL, XAER_RMFAIL},
         {0, 0},
         1},
    };
    commitTwiceEach(cases, true);
}

// Whatever the registry file is, a commit returns a code; when the file lists no reachable
// port the fan-out looks three times, a second apart. An attached file keeps its descriptor.
TEST_F(Faults, RegistryFileFaultsGiveTheirCodes) {
    using registry::kPath;
    auto truncateTo = [](off_t size) { return [size] { (void)!truncate(kPath, size); }; };
    auto rowCount = [](int32_t count) {
        return [count] {
            const int fd = ::open(kPath, O_WRONLY);
            (void)!pwrite(fd, &count, sizeof count, offsetof(registry::Header, rowCount));
            close(fd);
        };
    };
    auto unformatted = [] {
        writeRegistryBytes(std::vector<unsigned char>(sizeof(registry::File), 'q'));
    };
    const Codes unreached = {XAER_RMFAIL, XAER_RMFAIL};
    const Codes reached = {XA_OK, XA_OK};
    const Case cases[] = {
        {"missing", unreached, 0, 6, [] { unlink(kPath); }},
        {"zero length", unreached, 1, 6, truncateTo(0)},
        {"short, its rows kept", reached, 1, 0, truncateTo(200)},
        {"unformatted", unreached, 1, 6, unformatted},
        {"read-only", unreached, 0, 6, [] { mountReadOnly(kPath); }},
        {"row count -1", unreached, 1, 6, rowCount(-1)},
        {"row count 0", reached, 1, 0, rowCount(0)},
        {"row count 499", reached, 1, 0, rowCount(499)},
        {"row count 500", reached, 1, 0, rowCount(500)},
        {"row count 2147483647", reached, 1, 0, rowCount(INT_MAX)},
    };
    commitTwiceEach(cases);
}

// A queue manager's whole run with the library's nth allocation failing, for n = 1, 2, ...
// until a run meets no failure: every call returns its code and nothing leaks (the leak
// checkers look at each child).
TEST_F(Faults, EachAllocationFailingInTurnLeavesDefinedCodes) {
    if (!allocationFaultsAvailable()) {
        GTEST_SKIP() << "allocation faults need the allocator that the sanitizer replaces";
    }
    if (listenerPath().empty()) {
        GTEST_SKIP() << "xajms-listener is not part of this build";
    }
    ListenerProcess broker({"--mode", "broker", "--quiet", "--xid", "5:a:b", "--xid", "6:c:d"});
    ASSERT_TRUE(broker.started());
    std::string report;
    int nth = 1;
    for (; report != "complete" && nth < 50; ++nth) {
        SCOPED_TRACE(nth);
        report = inChild([nth] {
            static XID found[4];
            char open[] = "qm=QM1";
            failAllocation(nth);
            const int opened = xa_open_entry_jms(open, 1, TMNOFLAGS);
            const int opens = intXAOpen_jms;  // a refused open still counts
            const int recovered = xa_recover_entry_jms(found, 4, 1, TMSTARTRSCAN | TMENDRSCAN);
            const int committed = xa_commit_entry_jms(&xid, 1, TMNOFLAGS);
            const int closed = xa_close_entry_jms(open, 1, TMNOFLAGS);
            const bool complete = allocationsLeft() > 0;
            failAllocation(0);
            // The first allocation is the open table's; the recover's two fail silently.
            const Codes want = {nth == 1 ? XAER_RMERR : XA_OK, 1, 0, XA_OK, XA_OK};
            const std::string codes =
                compare("codes", {opened, opens, recovered, committed, closed}, want);
            return codes.empty() && complete ? "complete" : codes;
        });
        EXPECT_TRUE(report.empty() || report == "complete") << report;
    }
    EXPECT_EQ(report, "complete");
    EXPECT_EQ(nth - 2, 3);  // the sites: the open table, a reply's data area, its XID array
}

// A trace file that cannot be created costs its lines, never a code or a descriptor.
TEST_F(Faults, TraceDirectoryThatCannotBeWrittenChangesNoCode) {
    TempDir dir;
    const std::string readOnlyDir = dir.path() + "/ro";
    std::filesystem::create_directory(readOnlyDir);
    mountReadOnly(readOnlyDir.c_str());
    auto traceTo = [](std::string prefix) {
        return [prefix] {
            setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
            OrloStart();  // takes the switch's trace prefix from the variable
        };
    };
    const Case cases[] = {
        {"missing directory", {XA_OK, XA_OK}, 1, 0, traceTo(dir.path() + "/missing/x")},
        {"read-only directory", {XA_OK, XA_OK}, 1, 0, traceTo(readOnlyDir + "/x")},
        {"prefix too long", {XA_OK, XA_OK}, 1, 0, traceTo(std::string(600, 'p'))},
    };
    commitTwiceEach(cases);
    umount(readOnlyDir.c_str());
    EXPECT_TRUE(std::filesystem::is_empty(readOnlyDir));
}

}  // namespace
