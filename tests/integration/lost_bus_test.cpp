#include "fixture.h"

// The bus goes away under the hosts.
namespace KITE::Integration {

using LostBusTest = SystemTest;

TEST_F(LostBusTest, WithTheBusBothHostsGoAndLeaveNothingTreatedAndCanStartAgain) {
    SetPolicy({Rule("frozen", "cpu", 10, "freeze"), Rule("suppressed", "cpu_ext", 10, "kill")});
    StartWhole();
    Process& frozen = StartTarget("frozen", {"burn"});
    ExpectLogged({kFrozen});
    Process& suppressed = StartTarget("suppressed", {"burn"});
    const std::string before = suppressed.Standing();
    ExpectLogged({kSuppressed});
    BusDaemon().Signal(SIGKILL);
    EXPECT_EQ(75, QuotaHost().process.AwaitExit());
    EXPECT_EQ(75, KelvraHost().process.AwaitExit());
    EXPECT_TRUE(frozen.Runs());
    EXPECT_EQ(before, suppressed.Standing());
    ExpectNoTraces();
    ASSERT_TRUE(StartBus());
    StartWhole();
    ExpectPromptAnswer();
}

}  // namespace KITE::Integration
