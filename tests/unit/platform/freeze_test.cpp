#include "treatment_fixture.h"

namespace KITE::Linux {

using FreezeTest = TreatmentByEachMeans;
INSTANTIATE_TEST_SUITE_P(, FreezeTest, testing::Bool(), MeansName);

TEST_P(FreezeTest, AFreezeForATimeEndsByItselfAndTheLatestEndWins) {
    const Program& culprit = Begin();
    const auto start = Clock::now();
    ASSERT_EQ(Freeze(1000ms), 0);
    ASSERT_EQ(Freeze(1ms), 0);
    ASSERT_TRUE(StandsStill(culprit));
    ASSERT_TRUE(culprit.Runs());
    EXPECT_GE(Clock::now() - start, 1000ms);
    EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
}

TEST_P(FreezeTest, AProcessThatWasStoppedBeforeStaysStopped) {
    const Program& culprit = Begin();
    culprit.Signal(SIGSTOP);
    ASSERT_TRUE(culprit.AwaitState('T'));
    ASSERT_EQ(Freeze(), 0);
    ASSERT_EQ(Thaw(), 0);
    EXPECT_TRUE(StandsStill(culprit));
}

TEST_P(FreezeTest, TreatmentsOfOneProcessAreCountedAndEndInAnyOrder) {
    const Program& culprit = Begin();
    for (const bool thawFirst : {true, false}) {
        ASSERT_EQ(Freeze(), 0);
        ASSERT_EQ(Suppress(), 0);
        ASSERT_EQ(Suppress(), 0);
        ASSERT_EQ(EndSuppression(), 0);
        ASSERT_EQ(thawFirst ? Thaw() : EndSuppression(), 0);
        EXPECT_TRUE(HasRecords());
        // Suppressed still, it need not get the processor of a busy machine before long.
        EXPECT_TRUE(thawFirst ? !IsHeld(culprit) : StandsStill(culprit));
        ASSERT_EQ(thawFirst ? EndSuppression() : Thaw(), 0);
        EXPECT_TRUE(culprit.Runs());
        EXPECT_FALSE(HasRecords());
    }
    EXPECT_EQ(EndSuppression(), ESRCH);
    EXPECT_EQ(Thaw(), ESRCH);
}

}  // namespace KITE::Linux
