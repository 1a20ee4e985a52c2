#include "fixture.h"

// The three stages of a process that takes too much CPU time, and what is undone when a stage ends.
namespace KITE::Integration {

namespace {

constexpr milliseconds kLook{500};
constexpr double kSuppressedPercent = 5;  // of a core, at most

Launch OnOneCpu() {
    return {.uid = kUntrustedUid, .cpu = 0};
}

}  // namespace

using StagedTreatmentTest = SystemTest;

TEST_F(StagedTreatmentTest, AHogIsSuppressedThenFrozenThenKilled) {
    FakeManager& manager = StartWithFakeManager();
    Process& competitor = StartTarget("competitor", {"burn"}, OnOneCpu());
    Process& hog = StartTarget("hog", {"burn", "3"}, OnOneCpu());
    LogFile& log = QuotaHost().log;
    EXPECT_GT(hog.CpuPercent(kLook), kSuppressedPercent);

    ASSERT_EQ(0, manager.Report({Anomaly(hog, "cpu_ext", "kill")}));
    ASSERT_TRUE(log.Await("process enter suppress, processName: hog"));
    EXPECT_LE(hog.CpuPercent(kLook), kSuppressedPercent);

    ASSERT_EQ(0, manager.Report({Anomaly(hog, "cpu_ext", "kill")}));
    ASSERT_TRUE(log.Await("process is freezed, processName: hog"));
    competitor.Signal(SIGSTOP);
    EXPECT_TRUE(hog.StandsStill());
    ASSERT_TRUE(log.Await("THAW of pid"));
    EXPECT_TRUE(hog.Runs());

    ASSERT_EQ(0, manager.Report({Anomaly(hog, "cpu_ext", "kill")}));
    EXPECT_EQ(SIGKILL, hog.AwaitEnd());
    EXPECT_TRUE(Eventually([this] { return TracesOfTreatments().empty(); }));
    EXPECT_TRUE(log.Await("send event [FRAMEWORK,PROCESS_KILL]"));
    EXPECT_NE(std::string::npos, ReadWholeFile(Directory() + "/state/events.jsonl").find("PROCESS_KILL"));
}

TEST_F(StagedTreatmentTest, AfterASuppressionAllIsAsBeforeAlsoForAChildBornMeanwhile) {
    FakeManager& manager = StartWithFakeManager();
    Process& parent = StartTarget("parent", {"breed"});
    ASSERT_TRUE(Eventually([&] { return parent.ThreadCount() == 2; }));
    const std::string before = parent.Standing();
    ASSERT_EQ(0, manager.Report({Anomaly(parent, "cpu_ext", "kill")}));
    ASSERT_TRUE(QuotaHost().log.Await("process enter suppress"));
    EXPECT_NE(before, parent.Standing());
    EXPECT_FALSE(TracesOfTreatments().empty());
    parent.Signal(SIGUSR1);
    ASSERT_TRUE(QuotaHost().log.Await("process exit suppress"));
    EXPECT_EQ(before, parent.Standing());
    EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments());
}

}  // namespace KITE::Integration
