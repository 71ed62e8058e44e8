// xajms-drive as a user runs it: refused command lines, the line printed for each call, the
// arguments that reach the switch, the exit status for expected and unexpected codes, and
// repeated runs on threads, against a switch load file with scripted answers; then a few
// calls against the real library that need no listener.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "support/orlom.h"
#include "support/tool_run.h"
#include "support/trace_file.h"

namespace {

using xajms::test::lines;
using xajms::test::runTool;
using xajms::test::TempDir;
using xajms::test::ToolRun;
using Args = std::vector<std::string>;

#define SKIP_WITHOUT_DRIVE()                                     \
    if (xajms::test::drivePath().empty()) {                      \
        GTEST_SKIP() << "xajms-drive is not part of this build"; \
    }

// Runs the tool on the scripted switch with the script and a call log in dir.
ToolRun driveScripted(const TempDir &dir, const std::string &script, Args args,
                      const std::string &start = "ScriptedStart") {
    args.insert(args.begin(), {"--library", xajms::test::scriptedSwitchPath(), "--start", start});
    return runTool(xajms::test::drivePath(), args,
                   {"XAJMS_TEST_SCRIPT=" + script, "XAJMS_TEST_CALL_LOG=" + dir.path() + "/calls"});
}

std::vector<std::string> callLog(const TempDir &dir) {
    std::ifstream in(dir.path() + "/calls");
    std::vector<std::string> all;
    for (std::string line; std::getline(in, line);) {
        all.push_back(line);
    }
    return all;
}

// The line with its duration (" 0.042 ms" or " seconds=0.042") replaced by " T", so that
// lines compare whole; a line without one stays as it is.
std::string untimedLine(const std::string &line) {
    if (const std::size_t at = line.find(" seconds="); at != std::string::npos) {
        return line.substr(0, at) + " T";
    }
    const std::size_t ms = line.rfind(" ms");
    if (ms == std::string::npos || ms == 0) {
        return line;
    }
    const std::size_t blank = line.find_last_not_of("0123456789.", ms - 1);
    if (blank == std::string::npos || blank == ms - 1 || line[blank] != ' ') {
        return line;
    }
    return line.substr(0, blank) + " T" + line.substr(ms + 3);
}

std::vector<std::string> untimed(const std::string &out) {
    std::vector<std::string> all = lines(out);
    for (std::string &line : all) {
        line = untimedLine(line);
    }
    return all;
}

TEST(DriveTool, RefusedCommandLinesExitTwoWithOneLine) {
    SKIP_WITHOUT_DRIVE();
    const std::string lib = xajms::test::scriptedSwitchPath();
    const std::string longText(65, 'g');
    const std::vector<Args> cases = {
        {},
        {"--bogus", "open"},
        {"frobnicate"},
        {"commit"},
        {"--xid", "4711:gtrid", "commit"},
        {"--xid", "x:gtrid:bqual", "commit"},
        {"--xid", "1:" + longText + ":b", "commit"},
        {"--xid", "1:g:" + longText, "commit"},
        {"--rmid"},
        {"--rmid", "1x", "open"},
        {"--repeat", "0", "open"},
        {"--threads", "257", "open"},
        {"--count", "-1", "recover"},
        {"--expect", "commit=XA_NOPE", "open"},
        {"--expect", "bogus=0", "open"},
        {"--expect", "commit", "open"},
        {"--broker=yes", "open"},
        {"--xid", "1:g:b", "end=TMBOGUS"},
        {"--xid", "1:g:b", "end=TMSUCCESS|"},
        {"--library", "/nonexistent/libnothing.so", "open"},
        {"--library", lib, "--start", "NoSuchStart", "open"},
    };
    for (const Args &args : cases) {
        SCOPED_TRACE(::testing::PrintToString(args));
        const ToolRun run = runTool(xajms::test::drivePath(), args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        ASSERT_EQ(lines(run.err).size(), 1u) << run.err;
        EXPECT_EQ(run.err.rfind("xajms-drive: ", 0), 0u) << run.err;
    }
}

TEST(DriveTool, HelpGoesToStandardOutput) {
    SKIP_WITHOUT_DRIVE();
    const ToolRun run = runTool(xajms::test::drivePath(), {"--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.rfind("usage: xajms-drive", 0), 0u);
    EXPECT_EQ(run.err, "");
}

TEST(DriveTool, PrintsOneLinePerCallAndPassesTheArgumentsGiven) {
    SKIP_WITHOUT_DRIVE();
    TempDir dir;
    const ToolRun run = driveScripted(dir, "prepare=3;commit=-7;recover=2",
                                      {"--rmid",
                                       "3",
                                       "--xid",
                                       "-1:gtrid01:bq:ual",
                                       "--broker",
                                       "--count",
                                       "5",
                                       "--expect",
                                       "prepare=XA_RDONLY",
                                       "--expect",
                                       "commit=-7",
                                       "open=a b'c",
                                       "start=TMJOIN",
                                       "end",
                                       "prepare",
                                       "commit=tmonephase+TMNOWAIT",
                                       "recover=0x1000000",
                                       "forget",
                                       "complete",
                                       "close"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const std::vector<std::string> want = {
        "ZJavaInitSwitchJMS -> 0 T",
        "ScriptedStart -> switch 'SCRIPTED' flags=TMNOMIGRATE version=0 T",
        "open rmid=3 flags=TMNOFLAGS string='a b\\'c' -> XA_OK T",
        "start rmid=3 xid=-1:gtrid01:bq:ual flags=TMJOIN -> XA_OK T",
        "end rmid=3 xid=-1:gtrid01:bq:ual flags=TMSUCCESS -> XA_OK T",
        "prepare rmid=3 xid=-1:gtrid01:bq:ual flags=TMNOFLAGS -> XA_RDONLY T",
        "commit rmid=3 xid=-1:gtrid01:bq:ual flags=TMONEPHASE|TMNOWAIT -> XAER_RMFAIL T",
        "recover rmid=3 flags=TMSTARTRSCAN count=5 -> 2 xids T",
        "forget rmid=3 xid=-1:gtrid01:bq:ual flags=TMNOFLAGS -> XA_OK T",
        "complete rmid=3 flags=TMNOFLAGS -> XA_OK T",
        "close rmid=3 flags=TMNOFLAGS string='' -> XA_OK T",
    };
    EXPECT_EQ(untimed(run.out), want);
    const std::vector<std::string> calls = {
        "ZJavaInitSwitchJMS",
        "open rmid=3 flags=0x0 string=a b'c",
        "start rmid=3 flags=0x200000 xid=-1:gtrid01:bq:ual",
        "end rmid=3 flags=0x4000000 xid=-1:gtrid01:bq:ual",
        "prepare rmid=3 flags=0x0 xid=-1:gtrid01:bq:ual",
        "commit rmid=3 flags=0x50000000 xid=-1:gtrid01:bq:ual",
        "recover rmid=3 flags=0x1000000 count=5",
        "forget rmid=3 flags=0x0 xid=-1:gtrid01:bq:ual",
        "complete rmid=3 flags=0x0",
        "close rmid=3 flags=0x0 string=",
    };
    EXPECT_EQ(callLog(dir), calls);
}

struct StatusCase {
    const char *what;
    std::string script;
    Args args;
    int status;
    std::string lastLine;  // untimed
};

TEST(DriveTool, ExitStatusTellsWhetherEveryCallReturnedWhatWasExpected) {
    SKIP_WITHOUT_DRIVE();
    const Args xid = {"--xid", "1:g:b"};
    const auto with = [&xid](Args more) {
        more.insert(more.begin(), xid.begin(), xid.end());
        return more;
    };
    const std::vector<StatusCase> cases = {
        {"failure not expected", "commit=-7", with({"commit"}), 1,
         "commit rmid=1 xid=1:g:b flags=TMNOFLAGS -> XAER_RMFAIL T (expected XA_OK)"},
        {"failure expected by number", "commit=-7", with({"--expect", "commit=-7", "commit"}), 0,
         "commit rmid=1 xid=1:g:b flags=TMNOFLAGS -> XAER_RMFAIL T"},
        {"success where a failure was expected", "",
         with({"--expect", "rollback=XAER_NOTA", "rollback"}), 1,
         "rollback rmid=1 xid=1:g:b flags=TMNOFLAGS -> XA_OK T (expected XAER_NOTA)"},
        {"later expectation wins", "end=-4",
         with({"--expect", "end=-7", "--expect", "end=xaer_nota", "end"}), 0,
         "end rmid=1 xid=1:g:b flags=TMSUCCESS -> XAER_NOTA T"},
        {"code without a name", "prepare=42", with({"--expect", "prepare=42", "prepare"}), 0,
         "prepare rmid=1 xid=1:g:b flags=TMNOFLAGS -> 42 T"},
        {"recover error",
         "recover=-3",
         {"recover"},
         1,
         "recover rmid=1 flags=TMSTARTRSCAN|TMENDRSCAN count=64 -> XAER_RMERR T "
         "(expected a count of xids)"},
        {"recover count wanted exactly",
         "recover=1",
         {"--expect", "recover=0", "recover"},
         1,
         "recover rmid=1 flags=TMSTARTRSCAN|TMENDRSCAN count=64 -> 1 xid T (expected XA_OK)"},
        {"one failure among successes",
         "open=0;close=-3",
         {"open", "close", "open"},
         1,
         "open rmid=1 flags=TMNOFLAGS string='' -> XA_OK T"},
    };
    for (const StatusCase &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        const ToolRun run = driveScripted(dir, c.script, c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        ASSERT_FALSE(run.out.empty());
        EXPECT_EQ(untimed(run.out).back(), c.lastLine);
    }
}

TEST(DriveTool, ASwitchThatCannotBeDrivenEndsTheRunWithStatusOne) {
    SKIP_WITHOUT_DRIVE();
    TempDir dir;
    const ToolRun none = driveScripted(dir, "", {"open"}, "NullStart");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(untimed(none.out),
              std::vector<std::string>{"NullStart -> null T (expected a switch)"});
    const ToolRun partial = driveScripted(dir, "", {"open", "complete"}, "PartialStart");
    EXPECT_EQ(partial.status, 1);
    EXPECT_EQ(partial.err, "xajms-drive: the switch has no xa_complete_entry\n");
    EXPECT_TRUE(callLog(dir).empty()) << "no call is made before the entries are checked";
    EXPECT_EQ(driveScripted(dir, "", {"open"}, "PartialStart").status, 0);
}

TEST(DriveTool, RepeatsTheSequenceOnEveryThreadAndCountsEachUnexpectedCall) {
    SKIP_WITHOUT_DRIVE();
    TempDir dir;
    // Only the very first commit of the whole run fails, whichever thread makes it.
    const ToolRun run =
        driveScripted(dir, "commit=-7,0",
                      {"--threads", "3", "--repeat", "4", "--xid", "1:g:b", "open", "commit"});
    EXPECT_EQ(run.status, 1);
    std::vector<std::string> out = untimed(run.out);
    ASSERT_EQ(out.size(), 26u);
    EXPECT_EQ(out.front(), "ScriptedStart -> switch 'SCRIPTED' flags=TMNOMIGRATE version=0 T");
    EXPECT_EQ(out.back(), "total calls=24 unexpected=1 T");
    out.erase(out.begin());
    out.pop_back();
    std::map<std::string, int> seen;
    for (const std::string &line : out) {
        const std::size_t verbEnd = line.find(" rmid=");
        ASSERT_NE(verbEnd, std::string::npos) << line;
        ++seen[line.substr(0, verbEnd)];
    }
    for (int t = 1; t <= 3; ++t) {
        for (int r = 1; r <= 4; ++r) {
            const std::string prefix =
                "thread=" + std::to_string(t) + " round=" + std::to_string(r);
            EXPECT_EQ(seen[prefix + " open"], 1) << prefix;
            EXPECT_EQ(seen[prefix + " commit"], 1) << prefix;
        }
    }
    EXPECT_EQ(std::count_if(out.begin(), out.end(),
                            [](const std::string &l) { return l.ends_with("(expected XA_OK)"); }),
              1);
    EXPECT_EQ(callLog(dir).size(), 24u);
}

TEST(DriveTool, DrivesTheBuiltLibraryByDefault) {
    SKIP_WITHOUT_DRIVE();
    if (dlsym(RTLD_DEFAULT, "OrloStart") == nullptr) {
        GTEST_SKIP() << "the library has no OrloStart yet";
    }
    const std::string why = xajms::test::enterPrivateOrlom();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    const ToolRun run = runTool(xajms::test::drivePath(), {"--expect", "complete=XAER_RMFAIL",
                                                           "open=x", "complete", "close"});
    EXPECT_EQ(run.status, 0) << run.err;
    const std::vector<std::string> want = {
        "OrloStart -> switch 'KEL_VARNELINK' flags=TMNOMIGRATE version=0 T",
        "open rmid=1 flags=TMNOFLAGS string='x' -> XA_OK T",
        "complete rmid=1 flags=TMNOFLAGS -> XAER_RMFAIL T",
        "close rmid=1 flags=TMNOFLAGS string='' -> XA_OK T",
    };
    EXPECT_EQ(untimed(run.out), want);
}

}  // namespace
