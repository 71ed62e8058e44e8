// The trace facility: line layout, nesting depth, file naming, time stamps, XID dumps, XA
// code names and the start-up hooks, compared as whole lines with the clock and pid faked.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>

#include "support/fakes.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;
using Lines = std::vector<std::string>;

class Trace : public ::testing::Test {
  protected:
    void SetUp() override {
        xajms::test::freezeTraceColumns();
        std::snprintf(prefix, sizeof prefix, "%s/t", dir.path().c_str());
    }
    Lines lines() const { return xajms::test::traceLines(prefix); }

    xajms::test::TempDir dir;
    char prefix[512] = {};
};

TEST_F(Trace, EveryOperationWritesItsLayoutAtTheDepthOfItsCall) {
    XID xid{1, 2, 1, "\xAB\x01\xFF"};
    traceJMSEntry(prefix, "Varnelink", "outer");
    traceJMSEntryData(prefix, "XASocket", "inner", "port=7");
    traceJMSData(prefix, "XASocket", "inner", "a data line");
    traceJMSMsgFlags(prefix, "XASocket", "inner", 0x10000);
    traceJMSformattedXID(prefix, "XASocket", "inner", &xid);
    traceJMSExitData(prefix, "XASocket", "inner", "rc=0");
    traceJMSExit(prefix, "Varnelink", "outer");
    EXPECT_EQ(lines(), (Lines{
                           "2026-11-16 07:50:58.4017  12345          { Varnelink outer ",
                           golden(3, "{ XASocket inner   port=7"),
                           golden(3, "  XASocket inner   a data line"),
                           golden(3, "  XASocket inner   flags==           10000"),
                           golden(3, "  XASocket inner   Xid Format : 1"),
                           golden(3, "  XASocket inner   Xid gtrid length=2  data=ab01"),
                           golden(3, "  XASocket inner   Xid bqual length=1  data=ff"),
                           golden(3, "} XASocket inner   rc=0"),
                           golden(1, "} Varnelink outer "),
                       }));
    EXPECT_EQ(iIndent, 0);
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
    EXPECT_TRUE(std::filesystem::exists(std::string(prefix) + "12345.trc"));
    EXPECT_TRUE(lines().empty());
}

TEST(TraceTimeStamp, FractionIsPaddedToThreeDigitsOnly) {
    const std::tuple<time_t, suseconds_t, const char *> cases[] = {
        {1802174587, 0, "2027-02-09 12:03:07.000 "},
        {1802174587, 5, "2027-02-09 12:03:07.005 "},
        {1802174587, 42, "2027-02-09 12:03:07.042 "},
        {1802174587, 999, "2027-02-09 12:03:07.999 "},
        {1802174587, 4017, "2027-02-09 12:03:07.4017 "},
        {1802174587, 123456, "2027-02-09 12:03:07.123456 "},
        {1767323045, 7, "2026-01-02 03:04:05.007 "},  // every field padded to two
    };
    for (const auto &[seconds, micros, want] : cases) {
        xajms::test::armClock(seconds, micros);
        char stamp[30];
        EXPECT_EQ(getTimeStamp(stamp), static_cast<int>(std::strlen(want)));
        EXPECT_STREQ(stamp, want);
    }
}

TEST_F(Trace, XidDumpPrintsOnlyBytesInsideTheDataArea) {
    const std::string high = std::string(2 * 126, '0') + "7f";
    const std::tuple<long, long, std::string, std::string> cases[] = {
        {0, 0, "", ""},       {-1, -1, "", ""},
        {-1, 3, "", "0000"},  // a byte before the data area is left out
        {127, 4, high, "ff"}, {200, 3, high + "ff", ""},
    };
    XID xid{};
    xid.data[126] = 0x7f;
    xid.data[127] = static_cast<char>(0xff);
    for (const auto &[gtrid, bqual, gtridHex, bqualHex] : cases) {
        std::filesystem::remove(std::string(prefix) + "12345.trc");
        xid.gtrid_length = gtrid;
        xid.bqual_length = bqual;
        traceJMSformattedXID(prefix, "C", "f", &xid);
        EXPECT_EQ(lines(), (Lines{golden(0, "  C f   Xid Format : 0"),
                                  golden(0, "  C f   Xid gtrid length=" + std::to_string(gtrid) +
                                                "  data=" + gtridHex),
                                  golden(0, "  C f   Xid bqual length=" + std::to_string(bqual) +
                                                "  data=" + bqualHex)}));
    }
}

TEST_F(Trace, ReturnCodeLineNamesTheCodeFromTheTableOfTheCall) {
    xajms::test::enableVarnelinkTrace(prefix);
    const std::tuple<const char *, int, const char *> cases[] = {
        {"XA_COMMIT", 100, "XA_RBROLLBACK "},
        {"XA_OPEN", 0, "XA_OK         "},
        {"XA_PREPARE", 107, "XA_RBTRANSIENT"},
        {"XA_PREPARE", -9, "XAER_OUTSIDE  "},
        {"XA_END", 50, "50"},
        {"XA_END", -1, "-1"},
        {"XA_END", 108, "108"},
        {"XA_RECOVER", 0, "            0"},
        {"XA_RECOVER", -2147483647, "            -21"},  // cut to the 16-byte name text
        {"AX_REG", 1, "TM_RESUME     "},
        {"AX_UNREG", -3, "TMER_PROTO    "},
        {"AX_REG", 5, "5"},
        {"AX_REG", 100, "100"},
        {nullptr, -7, "XAER_RMFAIL   "},
    };
    Lines expected;
    for (const auto &[call, code, name] : cases) {
        XARCToStr_jms(call, code);
        expected.push_back(golden(0, std::string("        Return code = ") + name));
    }
    EXPECT_EQ(lines(), expected);
}

}  // namespace
