#include "fixture.h"

// What becomes of real processes.
namespace KITE::Integration {

namespace {

constexpr milliseconds kLook{500};
constexpr double kSuppressedPercent = 5;  // of a core, at most

Launch OnOneCpu() {
    return {.uid = kUntrustedUid, .cpu = 0};
}

}  // namespace

using ManagerTest = SystemTest;

TEST_F(ManagerTest, EachKindOfHogIsKilledAndOthersAreLeftAlone) {
    SetPolicy({Rule("spinner", "cpu", 10, "kill"), Rule("eater", "mem", 100'000, "kill"),
               Rule("writer", "io", 10'000'000, "kill"), Rule("modest", "cpu", 10, "kill")});
    Process& modest = StartTarget("modest", {"idle"});
    Process& stranger = StartTarget("stranger", {"burn"});
    StartWhole();
    // The build directory lies on a disk; the one for temporary files may not, and then counts no bytes.
    Process& writer = StartTarget("writer", {"flood"}, {.directory = KITE_WORK_DIRECTORY});
    EXPECT_EQ(SIGKILL, writer.AwaitEnd());
    std::filesystem::remove(KITE_WORK_DIRECTORY "/flood");
    EXPECT_EQ(SIGKILL, StartTarget("spinner", {"burn", "2"}).AwaitEnd());
    EXPECT_EQ(SIGKILL, StartTarget("eater", {"grow", "200"}).AwaitEnd());
    EXPECT_FALSE(modest.HasEnded());
    EXPECT_FALSE(stranger.HasEnded());
}

using StagesTest = SystemTest;

TEST_F(StagesTest, AHogIsSuppressedThenFrozenThenKilled) {
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

TEST_F(StagesTest, AfterASuppressionAllIsAsBeforeAlsoForAChildBornMeanwhile) {
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

using ReleaseTest = SystemTest;

TEST_F(ReleaseTest, WhatAKilledHostLeftTreatedIsReleasedByTheNextStartAndByTheCommand) {
    const std::function<void()> ways[] = {[this] { EXPECT_TRUE(StartQuotaHost().log.Await("start.")); },
                                          [this] { EXPECT_EQ(0, Release()); }};
    for (const auto& release : ways) {
        FakeManager& manager = StartWithFakeManager();
        Process& frozen = StartTarget("frozen", {"burn"});
        Process& suppressed = StartTarget("suppressed", {"burn"});
        const std::string before = suppressed.Standing();
        ASSERT_EQ(0, manager.Report({Anomaly(suppressed, "cpu_ext", ""), Anomaly(frozen, "cpu", "freeze")}));
        ASSERT_TRUE(QuotaHost().log.Await("freeze process, pid is"));
        EXPECT_NE(before, suppressed.Standing());
        QuotaHost().process.Signal(SIGKILL);
        ASSERT_TRUE(QuotaHost().process.AwaitEnd());
        manager.Leave();
        EXPECT_TRUE(frozen.StandsStill());
        release();
        EXPECT_TRUE(frozen.Runs());
        EXPECT_EQ(before, suppressed.Standing());
        EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments());
    }
}

TEST_F(ReleaseTest, WithTheBusBothHostsGoAndLeaveNothingTreatedAndCanStartAgain) {
    SetPolicy({Rule("frozen", "cpu", 10, "freeze"), Rule("suppressed", "cpu_ext", 10, "kill")});
    StartWhole();
    Process& frozen = StartTarget("frozen", {"burn"});
    ASSERT_TRUE(QuotaHost().log.Await("freeze process, pid is"));
    Process& suppressed = StartTarget("suppressed", {"burn"});
    const std::string before = suppressed.Standing();
    ASSERT_TRUE(QuotaHost().log.Await("process enter suppress"));
    BusDaemon().Signal(SIGKILL);
    EXPECT_EQ(75, QuotaHost().process.AwaitExit());
    EXPECT_EQ(75, KelvraHost().process.AwaitExit());
    EXPECT_TRUE(frozen.Runs());
    EXPECT_EQ(before, suppressed.Standing());
    EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments());
    ASSERT_TRUE(StartBus());
    StartWhole();
    ExpectPromptAnswer();
}

using DeviceStateTest = SystemTest;

TEST_F(DeviceStateTest, ADataTransferOrTheForegroundExemptsUntilTheStateChanges) {
    FakeManager& manager = StartWithFakeManager();
    LogFile& log = QuotaHost().log;
    Process& transfer = StartTarget("transfer", {"idle"});
    Process& application = StartTarget("application", {"burn"});
    const std::string before = application.Standing();
    const std::string pid = std::to_string(transfer.Pid());
    const auto setExempt = [&](bool isExempt) {
        SetDeviceState(R"({"continuous_tasks": [{"uid": 20001, "pid": )" + pid + R"(, "types": [)" +
                       (isExempt ? "1" : "2") + R"(]}], "applications": [{"uid": 20001, "processes": [)" +
                       std::to_string(application.Pid()) + R"(], "foreground": )" +
                       (isExempt ? "true}]}" : "false}]}"));
    };
    setExempt(true);
    const std::vector batch{Anomaly(transfer, "io", "kill"), Anomaly(application, "cpu_ext", "kill")};
    ASSERT_EQ(0, manager.Report(batch));
    EXPECT_TRUE(log.Await("pid:" + pid + " has special continuous task, it can be exempted"));
    EXPECT_TRUE(log.Await("cancel suppress, 20001 is in foreground or has window visible"));
    EXPECT_FALSE(transfer.HasEnded());
    EXPECT_EQ(before, application.Standing());
    setExempt(false);
    ASSERT_EQ(0, manager.Report(batch));
    EXPECT_EQ(SIGKILL, transfer.AwaitEnd());
    EXPECT_TRUE(log.Await("process enter suppress"));
    EXPECT_NE(before, application.Standing());
}

}  // namespace KITE::Integration
