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
    StartWithFakeManager();
    Process& competitor = StartTarget("competitor", {"burn"}, OnOneCpu());
    Process& hog = StartTarget("hog", {"burn", "3"}, OnOneCpu());
    EXPECT_GT(hog.CpuPercent(kLook), kSuppressedPercent);

    Report({Anomaly(hog, "cpu_ext", "kill")}, "process enter suppress, processName: hog");
    EXPECT_LE(hog.CpuPercent(kLook), kSuppressedPercent);

    Report({Anomaly(hog, "cpu_ext", "kill")}, "process is freezed, processName: hog");
    competitor.Signal(SIGSTOP);
    EXPECT_TRUE(hog.StandsStill());
    ExpectLogged({"THAW of pid"});
    EXPECT_TRUE(hog.Runs());

    Report({Anomaly(hog, "cpu_ext", "kill")}, "send event [FRAMEWORK,PROCESS_KILL]");
    EXPECT_EQ(SIGKILL, hog.AwaitEnd());
    EXPECT_TRUE(Eventually([this] { return TracesOfTreatments().empty(); }));
    ExpectContains(ReadWholeFile(State(Linux::FileName::kEvents)), {"PROCESS_KILL"});
}

TEST_F(StagedTreatmentTest, AfterASuppressionAllIsAsBeforeAlsoForAChildBornMeanwhile) {
    StartWithFakeManager();
    Process& parent = StartTarget("parent", {"breed"});
    ASSERT_TRUE(Eventually([&] { return parent.ThreadCount() == 2; }));
    const std::string before = parent.Standing();
    Report({Anomaly(parent, "cpu_ext", "kill")}, kSuppressed);
    EXPECT_NE(before, parent.Standing());
    EXPECT_FALSE(TracesOfTreatments().empty());
    parent.Signal(SIGUSR1);
    ExpectLogged({kSuppressionEnded});
    EXPECT_EQ(before, parent.Standing());
    ExpectNoTraces();
}

}  // namespace KITE::Integration
