// xajms-trace over traces that the library wrote in real runs with the clock and pids faked
// (kept in tests/data/traces and re-recorded here), over malformed inputs, and its timeline
// page in a real headless Chromium.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "support/fakes.h"
#include "support/listener_process.h"
#include "support/loopback.h"
#include "support/orlom.h"
#include "support/trace_file.h"

namespace {

using namespace xajms::test;
using Args = std::vector<std::string>;

const std::string kData = XAJMS_TEST_DATA;
const std::string kRun = kData + "/traces/run";  // qm12345.trc and qm23456.trc
constexpr pid_t kSecondPid = 23456;
constexpr suseconds_t kAnswerMicros = 1200;  // what each listener answer takes on the fake clock

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void advanceMicros(suseconds_t micros) {
    const suseconds_t total = Fakes::micros + micros;
    Fakes::seconds += total / 1000000;
    Fakes::micros = total % 1000000;
}

// The run behind tests/data/traces/run: a queue-manager process prepares and commits one
// transaction and prepares a second; another process commits the second, and the listener
// never answers that request, so the commit fails when its read gives up after 60 seconds
// (the waits pass on the fake clock at once).
void recordRun(const std::string &prefix, xa_switch_t *sw) {
    XID first = {4711, 7, 7, "gtrid01bqual01"};
    XID second = {4711, 7, 5, "gtrid02bq:02"};  // the colon makes the branch print as hex
    char open[] = "qm=QM1";
    setRecv([](int fd, void *buffer, size_t length, int flags) {
        advanceMicros(kAnswerMicros);
        return realRecv(fd, buffer, length, flags);
    });
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);
    freezeTraceColumns();
    OrloStart();
    sw->xa_open_entry(open, 1, TMNOFLAGS);
    for (XID *xid : {&first, &second}) {
        advanceMicros(250000);
        sw->xa_prepare_entry(xid, 1, TMNOFLAGS);
        advanceMicros(1000);
        if (xid == &first) {
            sw->xa_commit_entry(xid, 1, TMNOFLAGS);
        }
    }
    sw->xa_close_entry(open, 1, TMNOFLAGS);
    const pid_t child = fork();
    if (child == 0) {
        armPid(kSecondPid);
        advanceMicros(1000);
        setPoll([](pollfd *fds, nfds_t count, int timeout) {
            const int ready = realPoll(fds, count, 0);
            if (ready == 0 && timeout > 0) {
                advanceMicros(static_cast<suseconds_t>(timeout) * 1000);
            }
            return ready;
        });
        OrloStart();
        sw->xa_open_entry(open, 1, TMNOFLAGS);
        sw->xa_commit_entry(&second, 1, TMNOFLAGS);
        sw->xa_close_entry(open, 1, TMNOFLAGS);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    clearScripts();
}

// Fixed values for what differs between runs: port, listener pid, descriptors, mapping.
std::string normalised(std::string line, int port, pid_t listener) {
    const std::pair<std::regex, std::string> names[] = {
        {std::regex("(port(?: |=| = |  = ))" + std::to_string(port) + "(?!\\d)"), "$1@40001"},
        {std::regex("(pid = )" + std::to_string(listener) + "(?!\\d)"), "$1@999"},
        {std::regex("((?:sockfd(?: | = |=)|sokfd=|Sockfd=|closing socket ))\\d+"), "$1@7"},
        {std::regex("(shared_stuff = |attached at |process at )[0-9a-fA-F]{5,}"),
         "$1@7f0000001000"},
    };
    for (const auto &[pattern, name] : names) {
        line = std::regex_replace(line, pattern, name);
    }
    return std::regex_replace(line, std::regex("@"), "");  // keeps "$1" apart from the digits
}

TEST(TraceTool, RecordedRunsMatchTheKeptTraces) {
    const std::string why =
        listenerPath().empty() ? "xajms-listener is not built here" : enterPrivateOrlom();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    void *start = dlsym(dlopen(XAJMS_LIBRARY_PATH, RTLD_NOW), "OrloStart");
    ASSERT_NE(start, nullptr);
    xa_switch_t *sw = reinterpret_cast<xa_switch_t *(*)()>(start)();
    occupyDescriptorZero();
    ListenerProcess listener({"--mode", "broker", "--name", "EG1", "--never", "4", "--quiet"});
    ASSERT_TRUE(listener.started());
    TempDir dir;
    recordRun(dir.path() + "/qm", sw);
    for (const pid_t pid : {kTracePid, kSecondPid}) {
        SCOPED_TRACE(pid);
        std::vector<std::string> actual = traceLines(dir.path() + "/qm", pid);
        for (std::string &line : actual) {
            line = normalised(line, listener.port(), listener.pid());
        }
        const std::string kept = kRun + "/qm" + std::to_string(pid) + ".trc";
        if (std::getenv("XAJMS_UPDATE_GOLDEN") != nullptr) {
            std::ofstream out(kept);
            std::ranges::copy(actual, std::ostream_iterator<std::string>(out, "\n"));
        }
        EXPECT_EQ(actual, fileLines(kept));
    }
}

// The tool's output with the data directory written as DATA, as the golden files keep it.
ToolRun runTrace(const Args &args) {
    ToolRun run = runTool(traceToolPath(), args);
    run.out = std::regex_replace(run.out, std::regex(kData), "DATA");
    return run;
}

TEST(TraceTool, PrintsTheGoldenSummaryStoryAndJsonOfTheRecordedRun) {
    if (traceToolPath().empty()) {
        GTEST_SKIP() << "xajms-trace is not built here";
    }
    const std::string failed = "4711:gtrid02:0x62713a3032";
    // Arguments, golden file, exit status. A directory and the prefix read the same files.
    const std::tuple<Args, std::string, int> cases[] = {
        {{kRun}, "trace_summary.txt", 1},
        {{kRun + "/qm", kRun + "/qm12345.trc"}, "trace_summary.txt", 1},  // each file once
        {{"--json", kRun}, "trace_summary.json", 1},
        {{"--xid", failed, kRun}, "trace_story_failed.txt", 1},
        {{"--xid=4711:0x67747269643031:bqual01", kRun}, "trace_story_committed.txt", 0},
        {{"--json", "--xid", failed, kRun}, "trace_story_failed.json", 1},
        {{"--xid", "4711:gtrid03:bqual03", kRun}, "trace_story_absent.txt", 1},
    };
    for (const auto &[args, golden, status] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const ToolRun run = runTrace(args);
        const std::string path = kData + "/golden/" + golden;
        if (std::getenv("XAJMS_UPDATE_GOLDEN") != nullptr) {
            std::ofstream(path, std::ios::binary) << run.out;
        }
        EXPECT_EQ(run.out, slurp(path));
        EXPECT_EQ(run.status, status) << run.err;
    }
}

// A trace line of process 12345 at 07:50:58 plus `micros`, indented by `indent` blanks.
std::string traceLine(int micros, int indent, std::string_view marker, std::string_view rest) {
    std::string stamp = "2026-11-16 07:50:58." + std::to_string(micros) + " ";
    return stamp + " 12345        " + std::string(static_cast<std::size_t>(indent), ' ') +
           std::string(marker) + std::string(rest) + "\n";
}
std::string entry(int us, int indent, std::string_view fn, std::string_view data = "") {
    return traceLine(us, indent, " { Varnelink ",
                     std::string(fn) + (data.empty() ? " " : "   " + std::string(data)));
}
std::string exit(int us, int indent, std::string_view fn, std::string_view data = "") {
    return traceLine(us, indent, " } Varnelink ",
                     std::string(fn) + (data.empty() ? " " : "   " + std::string(data)));
}
std::string result(int us, int indent, std::string_view name) {
    return traceLine(us, indent, "                ", "Return code = " + std::string(name));
}
// The three dump lines of the XID 1:g:b, its bytes in hex as the trace writes them.
std::string xidDump(int us, int indent, std::string_view fn) {
    std::string out;
    for (const char *text :
         {"Xid Format : 1", "Xid gtrid length=1  data=67", "Xid bqual length=1  data=62"}) {
        out += traceLine(us, indent, "   Varnelink ", std::string(fn) + "   " + text);
    }
    return out;
}

TEST(TraceTool, MalformedInputsAreCountedAndNeverDerailThePairing) {
    if (traceToolPath().empty()) {
        GTEST_SKIP() << "xajms-trace is not built here";
    }
    const std::string ok = entry(100, 1, "xa_forget_entry_jms", "rmid=1 ") +
                           result(400, 3, "XA_OK         ") + exit(500, 1, "xa_forget_entry_jms");
    std::string nested;  // eleven entries deep: the indentation stops at 19 blanks
    for (int i = 0; i < 11; ++i) {
        nested += entry(100 + i, std::min(2 * i + 1, 19), "level" + std::to_string(i));
    }
    for (int i = 10; i >= 0; --i) {
        nested += exit(300 - 10 * i, std::min(2 * i + 1, 19), "level" + std::to_string(i));
    }
    // Rows: name, file content, the output lines that must be there (whole), exit status.
    const std::tuple<std::string, std::string, std::vector<std::string>, int> cases[] = {
        {"empty", "", {"files: 1, processes: 0, lines: 0 (malformed 0, torn 0, too long 0)"}, 0},
        {"torn last line",
         ok + ok.substr(0, 40),
         {"files: 1, processes: 1, lines: 3 (malformed 0, torn 1, too long 0)"},
         0},
        {"binary junk",
         std::string("\0\xff\x01junk\n", 8) + ok + "\x1b[2J\xc3\x28\n",
         {"files: 1, processes: 1, lines: 5 (malformed 2, torn 0, too long 0)",
          "xa_forget_entry_jms                                 1        0       0.400       0.400       0.400"},
         0},
        {"a line of 100 KiB",
         std::string(100 * 1024, 'x') + "\n" + ok,
         {"files: 1, processes: 1, lines: 3 (malformed 0, torn 0, too long 1)"},
         0},
        {"exit without entry, entry without exit",
         exit(100, 1, "GetSharedMemory_jms") + entry(200, 1, "GetSharedMemory_jms"),
         {"GetSharedMemory_jms                                 2        2       0.000       0.000       0.000"},
         0},
        {"depth capped at 19 blanks",
         nested,
         {"level0                                              1        0       0.200       0.200       0.200",
          "level10                                             1        0       0.090       0.090       0.090"},
         0},
        {"literals the library misspells",
         entry(100, 1, "xa_rollback_entry_jms", "rmid=1 ") + result(150, 3, "XAER_RMFAIL   ") +
             exit(300, 1, "xa_rollack_entry_jms", " rc =  -7") +
             entry(400, 1, "initializeConnectionPoolLock", "  called for pid 12345 ") +
             exit(450, 1, "initializeConnectionPoolock_jms") +
             entry(500, 1, "deleteConnectionPool_jms") + exit(560, 1, "deleteConnectionPool"),
         {"xa_rollback_entry_jms                               1        0       0.200       0.200       0.200",
          "initializeConnectionPoolLock                        1        0       0.050       0.050       0.050",
          "deleteConnectionPool_jms                            1        0       0.060       0.060       0.060",
          "calls that did not return XA_OK: 1"},
         1},
        {"interleaved threads",  // two commits share one depth: the second enters indented
         entry(100, 1, "xa_commit_entry_jms", "rmid=1 ") +
             entry(110, 3, "xa_prepare_entry_jms", "rmid=1 ") +
             exit(300, 1, "xa_commit_entry_jms") + result(310, 0, "XA_OK         ") +
             exit(900, 1, "xa_prepare_entry_jms") + result(910, 0, "XA_RDONLY     "),
         {"xa_commit_entry_jms                                 1        0       0.200       0.200       0.200",
          "xa_prepare_entry_jms                                1        0       0.790       0.790       0.790",
          "XA_RDONLY" + std::string(15, ' ') + "1"},
         1},
        {"a start takes the XID of the next end",  // start dumps no XID of its own
         entry(100, 1, "xa_start_entry_jms", "rmid=1 ") + result(150, 0, "XAER_RMERR    ") +
             exit(200, 1, "xa_start_entry_jms", "jniXAJMSStart_jms returned -3") +
             entry(300, 1, "xa_end_entry_jms", "rmid=1 ") + xidDump(300, 1, "xa_end_entry_jms") +
             result(350, 0, "XA_OK         ") + exit(400, 1, "xa_end_entry_jms"),
         {"calls: 2, transactions: 1", "  transaction 1:g:b",
          "    +0.000 ms  2026-11-16 07:50:58.000100  pid 12345  xa_start_entry_jms  XAER_RMERR  "
          "0.100 ms  (XID of the following end)",
          "    +0.200 ms  2026-11-16 07:50:58.000300  pid 12345  xa_end_entry_jms  XA_OK  0.100 ms"},
         1},
    };
    TempDir dir;
    for (const auto &[name, content, lines, status] : cases) {
        SCOPED_TRACE(name);
        const std::string path = dir.path() + "/in.trc";
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
        const ToolRun run = runTrace({path});
        EXPECT_EQ(run.status, status) << run.err;
        std::vector<std::string> out;
        std::istringstream in(run.out);
        for (std::string line; std::getline(in, line);) {
            out.push_back(line);
        }
        for (const std::string &line : lines) {
            EXPECT_NE(std::find(out.begin(), out.end(), line), out.end()) << line << "\n"
                                                                          << run.out;
        }
    }
}

TEST(TraceTool, RefusesABadCommandLineAndReportsAMissingFile) {
    if (traceToolPath().empty()) {
        GTEST_SKIP() << "xajms-trace is not built here";
    }
    const std::tuple<Args, int, std::string> cases[] = {
        {{}, 2, "xajms-trace: no trace file given (see --help)\n"},
        {{"--xid", "1:g", kRun}, 2, "xajms-trace: --xid: expected F:GTRID:BQUAL, got '1:g'\n"},
        {{"--frob", kRun}, 2, "xajms-trace: unexpected argument '--frob' (see --help)\n"},
        {{"--html"}, 2, "xajms-trace: --html: missing value\n"},
        {{"/nonexistent/qm"},
         1,
         "xajms-trace: /nonexistent/qm: no trace file (not a file, a directory with .trc "
         "files, or a prefix)\n"},
    };
    for (const auto &[args, status, err] : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const ToolRun run = runTrace(args);
        EXPECT_EQ(run.status, status);
        EXPECT_EQ(run.err, err);
    }
}

// The page of the recorded run, loaded by Chromium with the failed transaction chosen in
// the address: the script ran without an error and drew both lanes and every call.
TEST(TraceTool, TimelinePageDrawsTheLanesInHeadlessChromium) {
    if (traceToolPath().empty()) {
        GTEST_SKIP() << "xajms-trace is not built here";
    }
    std::string chromium;
    for (const char *candidate : {"/usr/bin/chromium", "/usr/bin/chromium-browser"}) {
        if (access(candidate, X_OK) == 0) {
            chromium = candidate;
            break;
        }
    }
    if (chromium.empty()) {
        GTEST_SKIP() << "no Chromium here (scripts/setup installs Debian's chromium)";
    }
    TempDir dir;
    const std::string page = dir.path() + "/timeline.html";
    const ToolRun made = runTrace({"--html", page, kRun});
    ASSERT_EQ(made.status, 1) << made.err;
    const std::string html = slurp(page);
    EXPECT_EQ(html.find("src="), std::string::npos);  // no external script or image
    EXPECT_EQ(html.find("<link"), std::string::npos);

    setenv("HOME", dir.path().c_str(), 1);  // Chromium's profile and caches go there
    const ToolRun run = runTool(
        chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
                   "--user-data-dir=" + dir.path() + "/profile", "--virtual-time-budget=2000",
                   "--dump-dom", "file://" + page + "#xid=4711:gtrid02:0x62713a3032"});
    ASSERT_EQ(run.status, 0) << run.err;
    const std::smatch status = [&] {
        std::smatch m;
        std::regex_search(run.out, m, std::regex("<p id=\"status\">([^<]*)</p>"));
        return m;
    }();
    ASSERT_FALSE(status.empty()) << run.out.substr(0, 2000);
    EXPECT_EQ(status[1].str(),
              "drew 2 lanes and 100 calls, transaction 4711:gtrid02:0x62713a3032 selected");
    const std::regex lane("<g class=\"lane\" data-pid=\"(\\d+)\">");
    std::vector<std::string> pids;
    for (auto it = std::sregex_iterator(run.out.begin(), run.out.end(), lane);
         it != std::sregex_iterator(); ++it) {
        pids.push_back((*it)[1]);
    }
    EXPECT_EQ(pids, (std::vector<std::string>{"12345", "23456"}));
}

}  // namespace
