#include "treatment_fixture.h"

namespace KITE::Linux {

using KillTest = TreatmentByEachMeans;
INSTANTIATE_TEST_SUITE_P(, KillTest, testing::Bool(), MeansName);

TEST_P(KillTest, AProcessKilledWhileTreatedDiesThoughTheProcessorIsBusyAndLeavesNothing) {
    const Program competitors[] = {Program({"a", "burn"}), Program({"b", "burn"}), Program({"c", "burn"})};
    for (const bool isFrozen : {true, false}) {
        const Program& culprit = Begin();
        ASSERT_EQ(Suppress(), 0);
        ASSERT_EQ(Freeze(), 0);
        ASSERT_EQ(isFrozen ? 0 : Thaw(), 0);
        const std::optional<Group> unified = GroupOf(culprit);
        ASSERT_EQ(Kill(), 0);
        EXPECT_TRUE(culprit.HasEnded(kPatience));
        EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
        EXPECT_TRUE(!isFrozen || Eventually([&] { return Events().back() == "RELEASE 0"; }));
        EXPECT_EQ(*(Events().end() - (isFrozen ? 2 : 1)), "KILL 0") << "before its end";
        EXPECT_FALSE(unified && unified->path.find("kite-") != std::string::npos &&
                     std::filesystem::exists(unified->path));
        EXPECT_EQ(Kill(), ESRCH);
    }
}

}  // namespace KITE::Linux
