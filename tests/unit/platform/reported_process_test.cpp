#include <sys/mount.h>

#include "proc/pidfd.h"
#include "proc/program.h"
#include "treatment_fixture.h"

namespace KITE::Linux {

constexpr const char* kNewName = "renamed-culprit";

using ReportedProcessTest = TreatmentTest;

TEST_F(ReportedProcessTest, OnlyTheReportedProcessUnderItsNameAndProgramIsTouched) {
    const Program& culprit = culprit_.emplace(std::vector<std::string>{kName, "burn"});
    StartHost();
    EXPECT_EQ(Kill(), ESRCH) << "never reported";
    EXPECT_FALSE(host_->Remember(culprit.Pid(), culprit.StartTime() + 1, kName)) << "of another start time";
    EXPECT_EQ(Kill(), ESRCH);
    ASSERT_TRUE(Report(culprit));
    EXPECT_EQ(Kill("another"), ESRCH);
    ASSERT_TRUE(Report(culprit, "another"));
    EXPECT_EQ(Freeze(std::nullopt, "another"), ESRCH) << "does not bear the reported name";
    EXPECT_TRUE(culprit.Runs());
}

TEST_F(ReportedProcessTest, AnotherProgramExecutedInTheReportedPidIsNotTouched) {
    const Program& culprit = Begin({"become"});
    const std::optional<ExecutableIdentity> reported = ReadExecutableIdentity(culprit.Pid());
    const std::string before = culprit.Standing();
    ASSERT_EQ(Suppress(), 0);
    culprit.Signal(SIGUSR1);
    ASSERT_TRUE(Eventually([&] {
        return ReadExecutableIdentity(culprit.Pid()) != reported && ReadProcessName(culprit.Pid()) == kName;
    }));
    EXPECT_EQ(Kill(), ESRCH);
    EXPECT_EQ(Freeze(), ESRCH);
    EXPECT_EQ(EndSuppression(), 0) << "what was done before is undone all the same";
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(culprit.AwaitState('S'));
    EXPECT_EQ(culprit.Standing(), before);
}

TEST_F(ReportedProcessTest, WhatWasTreatedUnderTwoNamesIsReleasedUnderBoth) {
    const Program& culprit = Begin({"become", kNewName});
    const pid_t pid = culprit.Pid();
    ASSERT_EQ(Suppress(), 0);
    culprit.Signal(SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return ReadProcessName(pid) == kNewName; }));
    EXPECT_EQ(EndSuppression(kNewName), ESRCH) << "not treated under that name yet";
    ASSERT_TRUE(Report(culprit, kNewName));
    ASSERT_EQ(Suppress(kNewName), 0);
    ASSERT_EQ(Freeze(std::nullopt, kNewName), 0);
    EXPECT_EQ(Thaw("stranger"), ESRCH);
    EXPECT_EQ(Thaw(kNewName), 0);
    EXPECT_EQ(EndSuppression(kNewName), 0);
    EXPECT_TRUE(HasRecords());
    EXPECT_EQ(EndSuppression(), 0);
    EXPECT_FALSE(HasRecords());
    EXPECT_FALSE(IsIdle(pid));
}

TEST_F(ReportedProcessTest, AProcessThatCannotBeReadIsNotTakenForGone) {
    const Program culprit({kName, "burn"});
    const pid_t pid = culprit.Pid();
    const int64_t startTime = culprit.StartTime();
    const std::vector<ThreadPolicy> policies = ReadThreadPolicies(pid);
    EndWatcher watcher([](std::optional<pid_t>) {});
    const Result<ReportedProcessPtr> process = ReportedProcesses(1, watcher).Remember(pid, startTime, kName);
    const auto unused = static_cast<rlim_t>(UniqueFd(dup(STDERR_FILENO)).Get());
    {
        const DescriptorLimit none(unused);
        EXPECT_EQ(RestorePolicies(pid, (*process)->pidfd, policies), ErrorOf(EAGAIN));
        EXPECT_EQ((*process)->Verify(kName).Why().Words(), "it cannot be looked at");
        const DescriptorLimit one(unused + 1);
        EXPECT_EQ(OpenProcess(pid, startTime).Code(), ErrorOf(EMFILE));
    }
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/proc", nullptr, MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(OpenProcess(pid, startTime).Code(), ErrorOf(EACCES));
    EXPECT_EQ(RestoreFamily(pid, {}, true, policies, {}), ErrorOf(EIO));
    EXPECT_EQ(umount("/proc"), 0);
}

TEST_F(ReportedProcessTest, TheOldestThatIsNotHeldMakesRoom) {
    const Program programs[] = {Program({kName, "idle"}), Program({kName, "idle"}), Program({kName, "idle"})};
    EndWatcher watcher([](std::optional<pid_t>) {});
    ReportedProcesses reported(2, watcher);
    const auto remember = [&](const Program& program) {
        return reported.Remember(program.Pid(), program.StartTime(), kName);
    };
    const Result<ReportedProcessPtr> held = remember(programs[0]);
    // Another report of a process does not end what holds it by an earlier one.
    for (const Program& program : programs) {
        ASSERT_TRUE(remember(program));
    }
    EXPECT_NE(reported.Find(programs[0].Pid()), nullptr);
    EXPECT_EQ(reported.Find(programs[1].Pid()), nullptr);
    EXPECT_NE(reported.Find(programs[2].Pid()), nullptr);
}

}  // namespace KITE::Linux
