// Faults from outside the library, one table per family: listeners that misbehave, registry
// files that are missing or damaged, and a process short of memory or of a writable trace
// directory. Each case runs in a child process of its own, so that it starts from the state
// of a freshly loaded library and a crash ends only that case; it checks the XA codes and that
// no descriptor is left open beyond those the library keeps on purpose.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <functional>
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
    int out[2];
    if (pipe(out) != 0) {
        return "no pipe";
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(out[0]);
        (void)!unshare(CLONE_NEWNS);  // what the case mounts goes with it
        alarm(20);                    // a case that hangs is killed and reported
        const std::string report = run();
        (void)!write(out[1], report.data(), report.size());
        std::exit(0);  // through the exit handlers: the leak checkers look at the child too
    }
    close(out[1]);
    std::string report;
    char chunk[256];
    for (ssize_t n; (n = read(out[0], chunk, sizeof chunk)) > 0;) {
        report.append(chunk, static_cast<size_t>(n));
    }
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) {
        return report + " killed by signal " + std::to_string(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? report
                                    : report + " exit status " + std::to_string(WEXITSTATUS(status));
}

// The open descriptors of the process, descriptor 0 left out (an emptied pool slot closes it).
int openDescriptors() {
    const std::filesystem::directory_iterator fds("/proc/self/fd");
    return static_cast<int>(std::distance(begin(fds), end(fds))) - 1 - (isOpen(0) ? 1 : 0);
}

std::string compare(const char *what, const Codes &got, const Codes &want) {
    return got == want ? "" : std::string(what) + " " + testing::PrintToString(got);
}

// What a listener does with the first request it reads: the bytes it writes back, then
// whether it ends the connection, with a reset when asked; whether the library's wait for
// them ends first (the fake poll times out). Every later request gets 0.
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
    explicit Listener(Fault fault) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        bind(fd_, reinterpret_cast<sockaddr *>(&address), length);
        listen(fd_, 8);
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this, fault] { serve(fault); });
    }
    ~Listener() {
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    int port() const { return port_; }

  private:
    void serve(Fault fault) {
        for (int conn; (conn = accept(fd_, nullptr, nullptr)) >= 0; fault = kAnswers) {
            unsigned char request[512];
            while (read(conn, request, sizeof request) > 0 &&
                   write(conn, fault.answer.data(), fault.answer.size()) >= 0 && !fault.ends) {
                fault = kAnswers;
            }
            const linger abort{1, 0};
            if (fault.resets) {
                setsockopt(conn, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
            }
            close(conn);
        }
    }
    int fd_;
    int port_ = 0;
    std::thread thread_;
};

// Writes the registry with one broker row for a listener with the fault (or for a port that
// refuses connections), damages the file, commits twice and closes the pool. Returns how the
// codes and the descriptors left open, once the listener is gone, differ from those wanted.
std::string commitTwice(Fault fault, bool refuses, const std::function<void()> &damage,
                        const Codes &want, int keptOpen) {
    const int before = openDescriptors();
    Codes got;
    {
        Listener listener(fault);
        LoopbackPort refusing(false);
        writeRegistry({{registry::kModeBroker, refuses ? refusing.port() : listener.port()}});
        damage();
        got = {xa_commit_entry_jms(&xid, 1, TMNOFLAGS), xa_commit_entry_jms(&xid, 1, TMNOFLAGS)};
        poolClear_jms(-1);
    }
    occupyDescriptorZero();
    return compare("codes", got, want) +
           compare("descriptors left", {openDescriptors() - before}, {keptOpen});
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
// commit finds it well again. A refused connect leaves its descriptor open, as the pool's get
// tries three times; the dead port is then marked, so the second commit finds no listener.
TEST_F(Faults, ListenerFaultsGiveTheirCodesAndTheNextCommitAFreshConnection) {
    struct Case {
        const char *name;
        Fault fault;
        bool refuses;
        Codes codes;
        int keptOpen;
    };
    const int deadbeef = static_cast<int>(0xdeadbeefu);
    const Case cases[] = {
        {"answers", kAnswers, false, {XA_OK, XA_OK}, 1},
        {"dies before answering", {"", true}, false, {XAER_RMFAIL, XA_OK}, 1},
        {"answers late", {{"\0\0\0d", 4}, false, false, true}, false, {XAER_RMFAIL, XA_OK}, 1},
        {"answers garbage", {"\xde\xad\xbe\xef"}, false, {deadbeef, XA_OK}, 1},
        {"answers half and closes", {{"\0\0", 2}, true}, false, {XAER_RMFAIL, XA_OK}, 1},
        {"resets the connection", {"", true, true}, false, {XAER_RMFAIL, XA_OK}, 1},
        {"refuses connections", kAnswers, true, {XA_OK, XAER_RMFAIL}, 4},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(inChild([&] {
                      int waits = 0;
                      setPoll([&](pollfd *fds, nfds_t n, int timeout) {
                          const bool expired = c.fault.late && waits++ == 0;
                          return expired ? 0 : realPoll(fds, n, timeout);
                      });
                      return commitTwice(c.fault, c.refuses, [] {}, c.codes, c.keptOpen);
                  }),
                  "");
    }
}

// Whatever the registry file is, a commit returns a code; when the file lists no reachable
// port the fan-out looks three times, a second apart. An attached file keeps its descriptor.
TEST_F(Faults, RegistryFileFaultsGiveTheirCodes) {
    using registry::kPath;
    struct Case {
        const char *name;
        std::function<void()> damage;
        Codes codes;
        int keptOpen;
    };
    auto truncateTo = [](off_t size) { return [size] { (void)!truncate(kPath, size); }; };
    auto rowCount = [](int32_t count) {
        return [count] {
            const int fd = ::open(kPath, O_WRONLY);
            (void)!pwrite(fd, &count, sizeof count, offsetof(registry::Header, rowCount));
            close(fd);
        };
    };
    auto readOnly = [] {
        mount(kPath, kPath, "none", MS_BIND, nullptr);
        mount("none", kPath, "none", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
    };
    auto unformatted = [] {
        writeRegistryBytes(std::vector<unsigned char>(sizeof(registry::File), 'q'));
    };
    const Codes unreached = {XAER_RMFAIL, XAER_RMFAIL};
    const Codes reached = {XA_OK, XA_OK};
    const Case cases[] = {
        {"missing", [] { unlink(kPath); }, unreached, 0},
        {"zero length", truncateTo(0), unreached, 1},
        {"short, its rows kept", truncateTo(200), reached, 1},
        {"unformatted", unformatted, unreached, 1},
        {"read-only", readOnly, unreached, 0},
        {"row count -1", rowCount(-1), unreached, 1},
        {"row count 0", rowCount(0), reached, 1},
        {"row count 499", rowCount(499), reached, 1},
        {"row count 500", rowCount(500), reached, 1},
        {"row count 2147483647", rowCount(INT_MAX), reached, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(inChild([&] {
                      const int sleeps = sleepCalls();
                      std::string report =
                          commitTwice(kAnswers, false, c.damage, c.codes, c.keptOpen);
                      return report + compare("sleeps", {sleepCalls() - sleeps},
                                              {c.codes == unreached ? 6 : 0});
                  }),
                  "");
    }
}

// A queue manager's whole run with the library's nth allocation failing, for n = 1, 2, ...
// until a run meets no failure: every call still returns one of its codes and nothing leaks
// (the leak checkers look at each child).
TEST_F(Faults, EachAllocationFailingInTurnLeavesDefinedCodes) {
    if (!allocationFaultsAvailable()) {
        GTEST_SKIP() << "allocation faults need the allocator that the sanitizer replaces";
    }
    if (listenerPath().empty()) {
        GTEST_SKIP() << "xajms-listener is not part of this build";
    }
    ListenerProcess broker({"--mode", "broker", "--quiet", "--xid", "5:61:62", "--xid", "6:63:64"});
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
            const int recovered = xa_recover_entry_jms(found, 4, 1, TMSTARTRSCAN | TMENDRSCAN);
            const int committed = xa_commit_entry_jms(&xid, 1, TMNOFLAGS);
            const int closed = xa_close_entry_jms(open, 1, TMNOFLAGS);
            const bool complete = allocationsLeft() > 0;
            failAllocation(0);
            if ((opened != XA_OK && opened != XAER_RMERR) || recovered != 0 ||
                (committed != XA_OK && committed != XAER_RMFAIL) || closed != XA_OK) {
                return compare("codes", {opened, recovered, committed, closed}, {});
            }
            return std::string(complete ? "complete" : "");
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
    mount(readOnlyDir.c_str(), readOnlyDir.c_str(), "none", MS_BIND, nullptr);
    mount("none", readOnlyDir.c_str(), "none", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
    for (const std::string &prefix : {dir.path() + "/missing/x", readOnlyDir + "/x",
                                      std::string(600, 'p')}) {
        SCOPED_TRACE(prefix.substr(0, 60));
        EXPECT_EQ(inChild([&] {
                      setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
                      OrloStart();  // takes the switch's trace prefix from the variable
                      return commitTwice(kAnswers, false, [] {}, {XA_OK, XA_OK}, 1);
                  }),
                  "");
    }
    umount(readOnlyDir.c_str());
    EXPECT_TRUE(std::filesystem::is_empty(readOnlyDir));
}

}  // namespace
