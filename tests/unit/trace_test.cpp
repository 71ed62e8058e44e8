// The trace facility, compared as whole lines with the clock and pid faked.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <tuple>

#include "support/fakes.h"
#include "support/trace_file.h"

namespace {

using namespace xajms::test;
using Lines = std::vector<std::string>;

class Trace : public ::testing::Test {
  protected:
    void SetUp() override { freezeTraceColumns(); }

    TempDir dir;
    std::string path = dir.path() + "/t";
    const char *prefix = path.c_str();
};

TEST_F(Trace, EveryOperationWritesItsLayoutAtTheDepthOfItsCall) {
    XID xid{1, 2, 1, "\xAB\x01\xFF"};
    traceJMSEntry(prefix, "Varnelink", "outer");
    traceJMSEntryData(prefix, "XASocket", "inner", nullptr);
    traceJMSData(prefix, "XASocket", "inner", nullptr);
    traceJMSMsgFlags(prefix, "XASocket", "inner", 0x10000);
    traceJMSformattedXID(prefix, "XASocket", "inner", &xid);
    traceJMSExitData(prefix, "XASocket", "inner", "rc=0");
    traceJMSExit(prefix, "Varnelink", "outer");
    EXPECT_EQ(traceLines(path),
              (Lines{"2026-11-16 07:50:58.4017  12345          { Varnelink outer ",
                     golden(3, "{ XASocket inner   (null)"), golden(3, "  XASocket inner   (null)"),
                     golden(3, "  XASocket inner   flags==           10000"),
                     golden(3, "  XASocket inner   Xid Format : 1"),
                     golden(3, "  XASocket inner   Xid gtrid length=2  data=ab01"),
                     golden(3, "  XASocket inner   Xid bqual length=1  data=ff"),
                     golden(3, "} XASocket inner   rc=0"), golden(1, "} Varnelink outer ")}));
    errno = EBADF;  // a trace file that cannot be opened leaves the caller's errno alone
    traceJMSData("/nonexistent/t", "C", "f", "d");
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Trace, NullArgumentsCreateTheFileButWriteNothing) {
    const XID xid{};
    traceJMSEntry(prefix, nullptr, "f");
    traceJMSEntryData(prefix, "C", nullptr, "d");
    traceJMSData(prefix, nullptr, "f", "d");
    traceJMSExitData(prefix, "C", "f", nullptr);
    traceJMSformattedXID(prefix, "C", "f", nullptr);
    traceJMSformattedXID(prefix, nullptr, "f", &xid);
    traceJMSEntry(nullptr, "C", "f");
    EXPECT_EQ(iIndent, 0);
    EXPECT_TRUE(std::filesystem::exists(path + "12345.trc"));
    EXPECT_TRUE(traceLines(path).empty());
}

// Beyond three digits the fraction is not padded: 4017 microseconds show as ".4017" above.
TEST(TraceTimeStamp, FractionIsPaddedToThreeDigitsOnly) {
    for (const auto &[micros, want] :
         {std::pair{9, "2026-01-02 03:04:09.009 "}, std::pair{99, "2026-01-02 03:04:09.099 "}}) {
        armClock(1767323049, micros);
        char stamp[30];
        EXPECT_EQ(getTimeStamp(stamp), static_cast<int>(std::strlen(want)));
        EXPECT_STREQ(stamp, want);
    }
}

TEST_F(Trace, XidDumpPrintsOnlyBytesInsideTheDataArea) {
    const std::string high = std::string(2 * 126, '0') + "7f";
    const std::tuple<long, long, std::string, std::string> cases[] = {
        {-1, 3, "gtrid length=-1  data=", "bqual length=3  data=0000"},  // byte -1 left out
        {127, 4, "gtrid length=127  data=" + high, "bqual length=4  data=ff"},
        {200, 3, "gtrid length=200  data=" + high + "ff", "bqual length=3  data="}};
    XID xid{};
    xid.data[126] = 0x7f;
    xid.data[127] = static_cast<char>(0xff);
    for (const auto &[gtrid, bqual, gtridLine, bqualLine] : cases) {
        std::filesystem::remove(path + "12345.trc");
        xid.gtrid_length = gtrid;
        xid.bqual_length = bqual;
        traceJMSformattedXID(prefix, "C", "f", &xid);
        EXPECT_EQ(traceLines(path),
                  (Lines{golden(0, "  C f   Xid Format : 0"), golden(0, "  C f   Xid " + gtridLine),
                         golden(0, "  C f   Xid " + bqualLine)}));
    }
}

TEST_F(Trace, ReturnCodeLineNamesTheCodeFromTheTableOfTheCall) {
    enableVarnelinkTrace(prefix);
    const std::tuple<const char *, int, const char *> cases[] = {
        {"XA_PREPARE", 107, "XA_RBTRANSIENT"},
        {"XA_END", -1, "-1"},
        {"XA_RECOVER", -2147483647, "            -21"},  // cut to the 16-byte name text
        {"AX_REG", 1, "TM_RESUME     "},
        {"AX_UNREG", -3, "TMER_PROTO    "},
        {"AX_REG", 100, "100"},
        {nullptr, -7, "XAER_RMFAIL   "}};
    Lines expected;
    for (const auto &[call, code, name] : cases) {
        XARCToStr_jms(call, code);
        expected.push_back(golden(0, std::string("        Return code = ") + name));
    }
    EXPECT_EQ(traceLines(path), expected);
}

}  // namespace
