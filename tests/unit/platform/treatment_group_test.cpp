#include "treatment_fixture.h"

namespace KITE::Linux {

static Cgroups GroupsOwnedByAManager() {
    return {Integration::ReadWholeFile("/proc/self/mountinfo"), true};
}

using TreatmentGroupTest = TreatmentWithGroups;
using ManagersGroupTest = TreatmentTest;

TEST_F(TreatmentGroupTest, AProcessAloneInItsGroupIsTreatedThereAndTheGroupStaysAsItWas) {
    // A manager would own the groups: alone in its group, the process is treated there all the same.
    groups_ = GroupsOwnedByAManager();
    const Program& culprit = Begin();
    const Group cpu{Hierarchy::kCpuV1, GroupOf(culprit, Hierarchy::kCpuV1)->path + "/own-of-culprit"};
    const Group unified{Hierarchy::kUnified, GroupOf(culprit)->path + "/own-of-culprit"};
    for (const Group& own : {cpu, unified}) {
        ASSERT_FALSE(CreateGroup(own));
        ASSERT_FALSE(MoveProcess(culprit.Pid(), own));
    }
    ASSERT_FALSE(WriteGroupFile(cpu, "cpu.shares", "512"));
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Freeze(60s), 0);
    EXPECT_EQ(GroupOf(culprit), unified);
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.idle"), "1");
    EXPECT_EQ(ReadGroupFile(unified, "cgroup.freeze"), "1");
    host_->ReleaseAll();
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.idle"), "0");
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.shares"), "512");
    EXPECT_EQ(ReadGroupFile(unified, "cgroup.freeze"), "0");
    // With a group below it, the group is no longer the process's alone.
    const Group below{Hierarchy::kUnified, unified.path + "/below"};
    ASSERT_FALSE(CreateGroup(below));
    StartHost();
    ASSERT_TRUE(Report(culprit));
    EXPECT_EQ(Freeze(), 0);
    EXPECT_EQ(ReadGroupFile(unified, "cgroup.freeze"), "0");
    EXPECT_EQ(Thaw(), 0);
    EXPECT_FALSE(RemoveGroup(below));
    for (const Group& own : {cpu, unified}) {
        EXPECT_FALSE(MoveAll(own, ParentOf(own)));
        EXPECT_FALSE(RemoveGroup(own));
    }
}

TEST_F(ManagersGroupTest, AManagersGroupIsLeftAloneAndAHostThatStopsRefusesMore) {
    groups_ = GroupsOwnedByAManager();
    const Program& culprit = Begin();
    const std::string before = culprit.Standing();
    const std::optional<Group> home = GroupOf(culprit);
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Freeze(60s), 0);
    EXPECT_EQ(GroupOf(culprit), home);
    EXPECT_TRUE(StandsStill(culprit));
    EXPECT_TRUE(IsIdle(culprit.Pid()));
    host_->ReleaseAll();
    EXPECT_NE(Freeze(), 0);
    EXPECT_TRUE(culprit.Runs());
    EXPECT_EQ(culprit.Standing(), before);
    EXPECT_FALSE(HasRecords());
}

}  // namespace KITE::Linux
