// The broker start-up hooks and the process role they decide.
#include <xajms/xajms.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/fakes.h"
#include "support/trace_file.h"

namespace {

using xajms::test::golden;

TEST(ProcessState, HooksCountTheirCallsAndTraceThemselves) {
    xajms::test::TempDir dir;
    xajms::test::freezeTraceColumns();
    const std::string prefix = dir.path() + "/t";
    setenv("XAJMS_TRACEFILE", prefix.c_str(), 1);

    EXPECT_EQ(flBrokerInit_jms, 0);
    EXPECT_EQ(ZJavaInitSwitchJMS(), 0);
    EXPECT_EQ(ZJavaInitSwitchJMS(), 0);
    EXPECT_EQ(ZJavaInitRecoverJMS(), 0);

    EXPECT_EQ(flBrokerInit_jms, 2);
    EXPECT_EQ(flRecoveryInit_jms, 1);
    EXPECT_EQ(xajms::test::traceLines(prefix), (std::vector<std::string>{
                                                   golden(1, "{ Varnelink ZJavaInitSwitchJMS "),
                                                   golden(1, "} Varnelink ZJavaInitSwitchJMS "),
                                                   golden(1, "{ Varnelink ZJavaInitSwitchJMS "),
                                                   golden(1, "} Varnelink ZJavaInitSwitchJMS "),
                                                   golden(1, "{ Varnelink ZJavaInitRecoverJMS "),
                                                   golden(1, "} Varnelink ZJavaInitRecoverJMS "),
                                               }));
}

TEST(ProcessState, HookTakesATraceNameOfAnyLengthCutTo486) {
    xajms::test::TempDir dir;
    xajms::test::freezeTraceColumns();
    // 600 characters: ".//" repeated inside the directory keeps the path valid.
    std::string prefix = dir.path() + "/";
    while (prefix.size() < 480) {
        prefix += "./";
    }
    const std::string kept = prefix + std::string(486 - prefix.size(), 'x');
    setenv("XAJMS_TRACEFILE", (kept + std::string(114, 'y')).c_str(), 1);

    ZJavaInitSwitchJMS();
    EXPECT_EQ(xajms::test::traceLines(kept).size(), 2U);
}

TEST(ProcessState, ExportedDataStartsAsTheHostExpects) {
    EXPECT_EQ(pglobalXid, &globalXid);
    EXPECT_STREQ(vStrTrace_jms, "OFF ");
    EXPECT_STREQ(vStrTraceFile_jms, "TraceFile");
    EXPECT_EQ(pJNI_Switch, nullptr);
    EXPECT_EQ(pRmidOpenstrTable, nullptr);
}

}  // namespace
