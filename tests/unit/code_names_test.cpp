// XA codes by name in the trace, and the pid text.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include "support/trace_file.h"

namespace {

TEST(CodeNames, ReturnCodeLineNamesTheCodeFromTheTableOfTheCall) {
    xajms::test::TempDir dir;
    xajms::test::freezeTraceColumns();
    xajms::test::enableVarnelinkTrace(dir.path() + "/t");
    struct Case {
        const char *call;
        int code;
        const char *name;
    } cases[] = {
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
    std::vector<std::string> expected;
    for (const Case &c : cases) {
        XARCToStr_jms(c.call, c.code);
        expected.push_back(xajms::test::golden(0, std::string("        Return code = ") + c.name));
    }
    EXPECT_EQ(xajms::test::traceLines(dir.path() + "/t"), expected);
}

TEST(CodeNames, NothingIsWrittenWhileTracingIsOff) {
    xajms::test::freezeTraceColumns();
    XARCToStr_jms("XA_OPEN", 0);
    EXPECT_TRUE(xajms::test::traceLines("NoTrace").empty());
}

TEST(CodeNames, PidTextKeepsTheSevenLeadingDigitsOfTheUnsignedValue) {
    struct Case {
        int value;
        const char *text;
        int result;
    } cases[] = {
        {0, "", 0},          {42, "42", 2}, {1234567, "1234567", 7}, {12345678, "1234567", 8},
        {-1, "4294967", 10},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.value);
        char text[8] = "garbage";
        EXPECT_EQ(intToAlpha_jms(c.value, text), c.result);
        EXPECT_STREQ(text, c.text);
    }
}

}  // namespace
