#include "fixture.h"

// What a host that was killed left frozen or suppressed.
namespace KITE::Integration {

using KilledHostTest = SystemTest;

TEST_F(KilledHostTest, WhatAKilledHostLeftTreatedIsReleasedByTheNextStartAndByTheCommand) {
    const std::function<void()> ways[] = {[this] { ExpectIn(StartQuotaHost().log, {"start."}); },
                                          [this] { EXPECT_EQ(0, Release()); }};
    for (const auto& release : ways) {
        StartWithFakeManager();
        Process& frozen = StartTarget("frozen", {"burn"});
        Process& suppressed = StartTarget("suppressed", {"burn"});
        const std::string before = suppressed.Standing();
        Report({Anomaly(suppressed, "cpu_ext", ""), Anomaly(frozen, "cpu", "freeze")}, kFrozen);
        EXPECT_NE(before, suppressed.Standing());
        KillQuotaHost();
        Manager().Leave();
        EXPECT_TRUE(frozen.StandsStill());
        release();
        EXPECT_TRUE(frozen.Runs());
        EXPECT_EQ(before, suppressed.Standing());
        ExpectNoTraces();
    }
}

}  // namespace KITE::Integration
