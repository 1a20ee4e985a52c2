#include "fixture.h"

// What a host that was killed left frozen or suppressed.
namespace KITE::Integration {

using KilledHostTest = SystemTest;

TEST_F(KilledHostTest, WhatAKilledHostLeftTreatedIsReleasedByTheNextStartAndByTheCommand) {
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

}  // namespace KITE::Integration
