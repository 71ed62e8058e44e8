// The trace facility: line layout, nesting depth, file naming, time stamps and XID dumps,
// compared as whole lines with the clock and the process id faked.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/fakes.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;
using xajms::test::traceLines;

class Trace : public ::testing::Test {
  protected:
    void SetUp() override {
        xajms::test::freezeTraceColumns();
        setPrefix(dir.path() + "/t");
    }
    void setPrefix(const std::string &value) {
        std::snprintf(prefix, sizeof prefix, "%s", value.c_str());
    }
    std::vector<std::string> lines() const { return traceLines(prefix); }

    xajms::test::TempDir dir;
    char prefix[512] = {};
};

TEST_F(Trace, FirstEntryMatchesTheDocumentedLineByteForByte) {
    traceJMSEntry(prefix, "Varnelink", "xa_open_entry_jms");
    EXPECT_EQ(lines(), std::vector<std::string>{"2026-11-16 07:50:58.4017  12345          "
                                                "{ Varnelink xa_open_entry_jms "});
    EXPECT_EQ(iIndent, 2);
}

TEST_F(Trace, EveryOperationWritesItsLayoutAtTheDepthOfItsCall) {
    XID xid{};
    xid.formatID = 1;
    xid.gtrid_length = 2;
    xid.bqual_length = 1;
    std::memcpy(xid.data, "\xAB\x01\xFF", 3);

    traceJMSEntry(prefix, "Varnelink", "outer");
    traceJMSEntryData(prefix, "XASocket", "inner", "port=7");
    traceJMSData(prefix, "XASocket", "inner", "a data line");
    traceJMSMsgFlags(prefix, "XASocket", "inner", 0x10000);
    traceJMSformattedXID(prefix, "XASocket", "inner", &xid);
    traceJMSExitData(prefix, "XASocket", "inner", "rc=0");
    traceJMSExit(prefix, "Varnelink", "outer");

    EXPECT_EQ(lines(), (std::vector<std::string>{
                           golden(1, "{ Varnelink outer "),
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

TEST_F(Trace, DepthIsCappedAtTwentyAndNeverDropsBelowZero) {
    for (int i = 0; i < 11; ++i) {
        traceJMSEntry(prefix, "C", "f");
    }
    EXPECT_EQ(iIndent, 20);  // 22 written back as 20 by the eleventh line
    traceJMSExit(prefix, "C", "f");
    EXPECT_EQ(iIndent, 18);
    const auto written = lines();
    ASSERT_EQ(written.size(), 12U);
    EXPECT_EQ(written[9], golden(19, "{ C f "));
    EXPECT_EQ(written[10], golden(19, "{ C f "));
    EXPECT_EQ(written[11], golden(19, "} C f "));

    for (int depth : {1, 0}) {
        SCOPED_TRACE(depth);
        iIndent = depth;
        traceJMSExit(prefix, "C", "f");
        traceJMSExitData(prefix, "C", "f", "d");
        EXPECT_EQ(iIndent, depth);
    }
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

TEST_F(Trace, PrefixNamesTheFileAndOnlyExactlyNoTraceSwitchesItOff) {
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    struct Case {
        const char *prefix;
        const char *file;  // nullptr: no file at all
    } cases[] = {
        {"NoTrace", nullptr},
        {"NoTrace2", "NoTrace212345.trc"},
        {"", "12345.trc"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.prefix);
        setPrefix(c.prefix);
        traceJMSEntry(prefix, "C", "f");
        traceJMSExit(prefix, "C", "f");
        if (c.file == nullptr) {
            EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
        } else {
            EXPECT_EQ(traceLines(dir.path() + "/" + c.file, 0).size(), 0U);  // name check below
            EXPECT_TRUE(std::filesystem::exists(dir.path() + "/" + c.file));
        }
        EXPECT_EQ(iIndent, 0);
    }
}

TEST_F(Trace, LongPrefixIsCutAt486Characters) {
    // Directories make room for a 500-character path whose cut falls in the last name.
    std::string path = dir.path();
    while (path.size() < 400) {
        path += "/" + std::string(60, 'd');
        std::filesystem::create_directory(path);
    }
    path += "/" + std::string(500 - path.size() - 1, 'f');
    ASSERT_EQ(path.size(), 500U);
    setPrefix(path);
    traceJMSData(prefix, "C", "f", "d");
    EXPECT_EQ(traceLines(path.substr(0, 486)).size(), 1U);
}

TEST(TraceTimeStamp, FractionIsPaddedToThreeDigitsOnly) {
    struct Case {
        suseconds_t micros;
        const char *stamp;
    } cases[] = {
        {0, "2027-02-09 12:03:07.000 "},     {5, "2027-02-09 12:03:07.005 "},
        {42, "2027-02-09 12:03:07.042 "},    {999, "2027-02-09 12:03:07.999 "},
        {4017, "2027-02-09 12:03:07.4017 "}, {123456, "2027-02-09 12:03:07.123456 "},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.micros);
        xajms::test::armClock(1802174587, c.micros);  // 2027-02-09 12:03:07 UTC
        char stamp[30];
        EXPECT_EQ(getTimeStamp(stamp), static_cast<int>(std::strlen(c.stamp)));
        EXPECT_STREQ(stamp, c.stamp);
    }
    xajms::test::armClock(1767323045, 7);  // 2026-01-02 03:04:05: every field padded to two
    char stamp[30];
    getTimeStamp(stamp);
    EXPECT_STREQ(stamp, "2026-01-02 03:04:05.007 ");
}

TEST_F(Trace, XidDumpPrintsOnlyBytesInsideTheDataArea) {
    struct Case {
        long gtrid;
        long bqual;
        std::string gtridHex;
        std::string bqualHex;
    } cases[] = {
        {0, 0, "", ""},
        {-1, -1, "", ""},
        {-1, 3, "", "0000"},  // a byte before the data area is left out
        {127, 4, std::string(2 * 126, '0') + "7f", "ff"},
        {200, 3, std::string(2 * 126, '0') + "7fff", ""},
    };
    XID xid{};
    xid.data[126] = 0x7f;
    xid.data[127] = static_cast<char>(0xff);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.gtrid);
        std::filesystem::remove(std::string(prefix) + "12345.trc");
        xid.gtrid_length = c.gtrid;
        xid.bqual_length = c.bqual;
        traceJMSformattedXID(prefix, "C", "f", &xid);
        const auto written = lines();
        ASSERT_EQ(written.size(), 3U);
        EXPECT_EQ(written[1], golden(0, "  C f   Xid gtrid length=" + std::to_string(c.gtrid) +
                                            "  data=" + c.gtridHex));
        EXPECT_EQ(written[2], golden(0, "  C f   Xid bqual length=" + std::to_string(c.bqual) +
                                            "  data=" + c.bqualHex));
    }
}

}  // namespace
