#include "fixture.h"

// Between its report and the action, a process ends, executes another program, or gives its pid to another
// one.
namespace KITE::Integration {

class ReplacedProcessTest : public SystemTest {
  protected:
    // A process whose report has arrived, and that the host, stopped now, has not come to: many records stand
    // before it, which ask for no known action and cost one log line each. Tried again when the host was
    // faster.
    Process& ReportOneAndStopTheHost(const std::vector<std::string>& mode) {
        constexpr size_t kRecordsBefore = 3000;
        StartWithFakeManager();
        const Process& host = QuotaHost().process;
        std::vector batch(kRecordsBefore, Anomaly(StartTarget("harmless", {"idle"}), "cpu", "none"));
        Process* reported = nullptr;
        EXPECT_TRUE(Eventually([&] {
            host.Signal(SIGCONT);
            reported = &StartTarget("reported", mode);
            batch.back() = Anomaly(*reported, "cpu", "kill");
            EXPECT_EQ(0, Manager().Report(batch));
            host.Signal(SIGSTOP);
            return host.AwaitState('T') && !reported->HasEnded();
        })) << "the host was faster each time";
        return *reported;
    }
    void ContinueAndExpectRefusal(const Process& process) {
        const std::string pid = std::to_string(process.Pid());
        QuotaHost().process.Signal(SIGCONT);
        ExpectLogged({"process pid:" + pid + ", resType:cpu", "KILL of pid " + pid + " (reported) failed"});
        EXPECT_FALSE(process.HasEnded(milliseconds(200)));
    }
};

TEST_F(ReplacedProcessTest, APidThatHasGoneToAnotherProcessIsNotTouched) {
    Process& reported = ReportOneAndStopTheHost({"idle"});
    reported.Signal(SIGKILL);
    ASSERT_TRUE(reported.AwaitEnd());
    Process& newcomer = StartTarget("reported", {"idle"}, {.pid = reported.Pid()});
    ASSERT_EQ(reported.Pid(), newcomer.Pid());
    ContinueAndExpectRefusal(newcomer);
}

TEST_F(ReplacedProcessTest, AProcessThatExecutesAnotherProgramIsNotTouched) {
    Process& reported = ReportOneAndStopTheHost({"become"});
    reported.Signal(SIGUSR1);
    const std::string cmdline = "/proc/" + std::to_string(reported.Pid()) + "/cmdline";
    ASSERT_TRUE(Eventually([&] { return ReadWholeFile(cmdline).find("1000") != std::string::npos; }));
    ContinueAndExpectRefusal(reported);
}

TEST_F(ReplacedProcessTest, AReportOfAnEarlierProcessDoesNotReachTheLaterOne) {
    StartWithFakeManager();
    Process& present = StartTarget("present", {"idle"});
    Kelvra::ProcessAnomalyInfo earlier = Anomaly(present, "cpu", "kill");
    --earlier.startTime;
    Report({earlier}, "KILL of pid " + std::to_string(present.Pid()) + " (present) failed");
    EXPECT_FALSE(present.HasEnded(milliseconds(200)));
}

}  // namespace KITE::Integration
