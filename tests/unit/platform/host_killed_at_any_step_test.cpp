#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "proc/pidfd.h"
#include "system_log.h"
#include "treatment_fixture.h"
#include "treatments/freeze.h"
#include "treatments/suppress.h"

namespace KITE::Linux {

namespace {

// Whether the call changes anything that outlives its process.
bool LeavesATrace(const __ptrace_syscall_info& call) {
    constexpr uint64_t kCalls[] = {SYS_write,    SYS_mkdir, SYS_mkdirat,       SYS_renameat,
                                   SYS_unlinkat, SYS_rmdir, SYS_sched_setattr, SYS_pidfd_send_signal};
    return call.op == PTRACE_SYSCALL_INFO_ENTRY &&
           (std::ranges::find(kCalls, call.entry.nr) != std::end(kCalls) ||
            (call.entry.nr == SYS_openat && (call.entry.args[2] & O_CREAT) != 0));
}

// Runs in a process of its own, which is killed before the call of that number that leaves a trace. False
// when there are not so many and it has ended by itself.
bool KillBeforeCall(int number, const std::function<void()>& work) {
    const pid_t worker = fork();
    if (worker == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(worker, &status, 0);
    ptrace(PTRACE_SETOPTIONS, worker, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    while (WIFSTOPPED(status)) {
        __ptrace_syscall_info call{};
        ptrace(PTRACE_GET_SYSCALL_INFO, worker, sizeof(call), &call);
        if (LeavesATrace(call) && --number == 0) {
            kill(worker, SIGKILL);
        }
        ptrace(PTRACE_SYSCALL, worker, nullptr, nullptr);
        waitpid(worker, &status, 0);
    }
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0);
    return WIFSIGNALED(status);
}

}  // namespace

using KilledHostTest = TreatmentTest;
using KilledHostByEachMeans = TreatmentByEachMeans;
using KilledHostWithGroups = TreatmentWithGroups;
INSTANTIATE_TEST_SUITE_P(, KilledHostByEachMeans, testing::Bool(), MeansName);

TEST_P(KilledHostByEachMeans, AHostKilledAtAnyStepLeavesNothingThatTheNextDoesNotRelease) {
    Log::minimumLevel = Log::Level::kError;  // a logging thread would be missing in the worker
    const Program culprit({kName, "burn"});
    const Result<UniqueFd> pidfd = OpenProcess(culprit.Pid(), culprit.StartTime());
    const std::string before = culprit.Standing();
    const auto treat = [&] {
        TreatmentContext context = Context();
        TreatmentRecord record = RecordOf(culprit);
        record.freeze.reset();
        const bool isDone = !Linux::Suppress(context, record, pidfd->Get()).error &&
                            !Linux::Freeze(context, record, pidfd->Get()).error &&
                            !Linux::Thaw(context, record, pidfd->Get()).error &&
                            !Linux::EndSuppression(context, record, pidfd->Get()).error;
        _exit(isDone && record.IsEmpty() ? 0 : 1);
    };
    int calls = 1;
    for (; KillBeforeCall(calls, treat); ++calls) {
        ASSERT_TRUE(ReleaseLeft()) << calls;
        ASSERT_TRUE(culprit.Runs()) << calls;
        ASSERT_EQ(culprit.Standing(), before) << calls;
        std::filesystem::remove(Path("treated/.unfinished"));
        ASSERT_FALSE(HasRecords()) << calls;
        for (const Hierarchy hierarchy : {Hierarchy::kUnified, Hierarchy::kCpuV1}) {
            const std::optional<Group> home = GroupOf(culprit, hierarchy);
            ASSERT_FALSE(home && std::filesystem::exists(RecordOf(culprit).GroupBelow(*home).path)) << calls;
        }
    }
    EXPECT_GT(calls, 10);
}

TEST_F(KilledHostWithGroups, ChildrenGoBackAlsoWhenTheTreatedProcessIsGone) {
    const Program& culprit = Begin({"breed"});
    const std::optional<Group> home = GroupOf(culprit);
    ASSERT_EQ(Freeze(), 0);
    const Group group = *GroupOf(culprit);
    ASSERT_NE(group, *home);
    // A child that was born while the group was not frozen.
    ASSERT_FALSE(WriteGroupFile(group, "cgroup.freeze", "0"));
    culprit.Signal(SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return !culprit.Children().empty(); }));
    const pid_t child = culprit.Children()[0];
    host_.reset();
    culprit.Signal(SIGKILL);
    ASSERT_TRUE(culprit.HasEnded(kPatience));
    ASSERT_TRUE(ReleaseLeft());
    EXPECT_EQ(groups_.GroupOf(child, Hierarchy::kUnified), home);
    EXPECT_FALSE(std::filesystem::exists(group.path));
}

TEST_F(KilledHostTest, AReleaseWithoutOptionsFindsTheRecordsInTheirUsualPlace) {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    ASSERT_EQ(mount("none", "/run", "tmpfs", 0, nullptr), 0);
    std::filesystem::create_directories("/run/kite/treated");
    std::filesystem::permissions("/run/kite/treated", std::filesystem::perms::owner_all);
    TreatmentRecord record = RecordOf(Begin());
    record.bootId = "of-another-boot";
    ASSERT_FALSE(RecordStore("/run/kite").Write(record));
    EXPECT_EQ(Process({.program = KITE_HOST, .arguments = {"kite_host", "--release"}}).AwaitExit(), 0);
    EXPECT_TRUE(std::filesystem::is_empty("/run/kite/treated"));
    EXPECT_EQ(umount2("/run", MNT_DETACH), 0);
}

TEST_F(KilledHostTest, AReleaseThatLacksDescriptorsFailsAndKeepsTheRecord) {
    const Program& culprit = Begin();
    const std::string before = culprit.Standing();
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Freeze(), 0);
    ASSERT_TRUE(StandsStill(culprit));
    host_.reset();
    const auto releaseWith = [this](rlim_t descriptors) {
        const DescriptorLimit few(descriptors);
        return ReleaseLeft();
    };
    rlim_t descriptors = 3;
    while (descriptors < 1000 && !releaseWith(descriptors)) {
        ASSERT_TRUE(HasRecords()) << "with " << descriptors;
        ++descriptors;
    }
    EXPECT_GT(descriptors, 3U);
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(culprit.Runs());
    EXPECT_EQ(culprit.Standing(), before);
}

TEST_F(KilledHostTest, WhatALivingHostTreatsIsNotLeft) {
    const Program host({"host", "idle"});
    const Program another({"another", "idle"});
    TreatmentRecord record = RecordOf(host);
    ++record.startTime;
    record.hostPid = host.Pid();
    record.hostStartTime = host.StartTime();
    EXPECT_TRUE(Release(record));
    EXPECT_TRUE(HasRecords());
    host.Signal(SIGKILL);  // its status is collected later
    ASSERT_TRUE(host.AwaitState('Z'));
    EXPECT_TRUE(ReleaseLeft());
    EXPECT_FALSE(HasRecords());
    record.hostPid = another.Pid();
    record.hostStartTime = another.StartTime() + 1;  // the pid is another process's by now
    EXPECT_TRUE(Release(record));
    EXPECT_FALSE(HasRecords());
}

}  // namespace KITE::Linux
