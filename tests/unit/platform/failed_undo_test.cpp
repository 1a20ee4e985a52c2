#include <sys/mount.h>

#include "treatment_fixture.h"

namespace KITE::Linux {

using FailedUndoTest = TreatmentWithGroups;

TEST_F(FailedUndoTest, AnEndThatFailsIsTriedAgainWhateverComesBetweenAndToldWhenItIsDone) {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    mount("none", "/sys/fs/cgroup", nullptr, MS_REC | MS_PRIVATE, nullptr);
    const auto hideGroups = [] { return mount("none", "/sys/fs/cgroup", "tmpfs", 0, nullptr); };
    const auto showGroups = [] { return umount2("/sys/fs/cgroup", MNT_DETACH); };
    const Program& culprit = Begin();
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Freeze(100ms), 0);
    ASSERT_EQ(hideGroups(), 0);
    const bool isTold = Eventually([&] { return Events().size() == 4; });
    const bool isFrozenStill = host_->List().at(0).frozenSince != 0;
    const int ended = EndSuppression();
    ASSERT_EQ(showGroups(), 0);
    EXPECT_TRUE(isTold && isFrozenStill);
    EXPECT_EQ(ended, 0);
    EXPECT_TRUE(culprit.Runs());
    EXPECT_TRUE(Eventually([&] { return Events().size() == 6; }));
    ASSERT_EQ(Freeze(), 0);
    ASSERT_EQ(hideGroups(), 0);
    culprit.Signal(SIGKILL);
    const bool isToldEarly = Eventually([&] { return Events().size() > 7; }, 300ms);
    ASSERT_EQ(showGroups(), 0);
    EXPECT_FALSE(isToldEarly);
    EXPECT_TRUE(Eventually([&] { return Events().size() == 8; }));
    EXPECT_FALSE(HasRecords());
    EXPECT_THAT(Events(), testing::ElementsAre("SUPPRESS 0", "SUPPRESS 0", "FREEZE 0", testing::Not("THAW 0"),
                                               "SUPPRESS_END 0", "THAW 0", "FREEZE 0", "RELEASE 0"));
}

}  // namespace KITE::Linux
