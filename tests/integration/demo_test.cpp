#include "fixture.h"

namespace KITE::Integration {

using DemoTest = SystemTest;

TEST_F(DemoTest, FailsWhenThePolicyDoesNotStopTheHogs) {
    SetPolicy({Rule("absent", "cpu", 10, "warning")});
    LogFile output(Directory() + "/output");
    const std::string rawLog = Directory() + "/raw.log";
    Process demo({.program = KITE_DEMO,
                  .arguments = {"kite_demo", "--etc", KITE_ETC, "--raw-log", rawLog, "--config", Layer()},
                  .output = output.Fd()});
    EXPECT_EQ(1, demo.AwaitExit(std::chrono::seconds(60))) << output.Text();
    // It failed by its verdict: the system came up, and saw the hogs.
    const std::string log = ReadWholeFile(rawLog);
    ExpectContains(log, {"publish resource quota control service successfully!"});
    EXPECT_THAT(log, testing::Not(testing::HasSubstr("KILL of pid")));
    ExpectContains(ReadWholeFile(Directory() + "/raw.html"), {"No process was suppressed"});
}

}  // namespace KITE::Integration
