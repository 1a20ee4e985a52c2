// Treatments of real processes, for whose sake this looks at /proc and at the control groups itself.

#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "base/text.h"
#include "platform_fixture.h"
#include "proc/command_line.h"
#include "proc/pidfd.h"
#include "proc/process_list.h"
#include "proc/process_stat.h"
#include "resource_schedule.h"
#include "suspend_manager.h"
#include "system_log.h"
#include "treatments/reported_processes.h"
#include "treatments/thread_policies.h"
#include "treatments/treatment_record.h"
#include "treatments/treatments.h"

namespace KITE::Linux {

namespace {

constexpr const char* kName = "culprit";
constexpr const char* kNewName = "renamed-culprit";

bool IsIdle(pid_t pid) {
    return ReadThreadPolicies(pid)[0].IsIdle();
}

Cgroups GroupsOwnedByAManager() {
    return {Integration::ReadWholeFile("/proc/self/mountinfo"), true};
}

// A host's table, and a process that is treated through it.
class Actions : public DirectoryTest {
  protected:
    // A host starts, in place of the one before, which dies without a word.
    Treatments& StartTable() {
        table_ = std::make_unique<Treatments>(Treatments::Options{groups_, directory_});
        return *table_;
    }
    // The process starts, and a host that it is reported to.
    const Program& Begin(std::vector<std::string> mode = {"burn"}) {
        mode.insert(mode.begin(), kName);
        culprit_.emplace(std::move(mode));
        EXPECT_TRUE(StartTable().Remember(culprit_->Pid(), culprit_->StartTime(), kName));
        return *culprit_;
    }
    int Suppress() { return table_->Suppress(culprit_->Pid(), kName); }
    int EndSuppression() { return table_->EndSuppression(culprit_->Pid(), kName); }
    int Freeze(std::optional<milliseconds> time = std::nullopt) {
        return table_->Freeze(culprit_->Pid(), kName, time);
    }
    int Thaw() { return table_->Thaw(culprit_->Pid(), kName); }
    int Kill() { return table_->Kill(culprit_->Pid(), kName, "CPU"); }

    std::optional<Group> GroupOf(const Process& process, Hierarchy hierarchy = Hierarchy::kUnified) const {
        return groups_.GroupOf(process.Pid(), hierarchy);
    }
    bool StandsStill(const Process& process) const {
        // SIGSTOP is taken a moment after it was accepted; a freezer has been waited for.
        const std::optional<Group> group =
            Cgroups::OfThisMachine().GroupOf(process.Pid(), Hierarchy::kUnified);
        const bool isInFreezer = group && ReadGroupFile(*group, "cgroup.freeze") == "1";
        return (isInFreezer || process.AwaitState('T')) && process.StandsStill();
    }
    bool HasRecords() const {
        return std::filesystem::exists(Path("treated")) && !std::filesystem::is_empty(Path("treated"));
    }
    // What a host leaves of the process; Release says whether the next one can forget it.
    static TreatmentRecord RecordOf(const Process& process) {
        TreatmentRecord record;
        record.bootId = CurrentBootId();
        record.pid = process.Pid();
        record.startTime = process.StartTime();
        record.processName = kName;
        record.freeze.emplace();
        return record;
    }
    bool Release(const TreatmentRecord& record) {
        std::filesystem::create_directory(Path("treated"));
        std::filesystem::permissions(Path("treated"), std::filesystem::perms::owner_all);
        EXPECT_EQ(RecordStore(directory_).Write(record), 0);
        return table_->ReleaseLeft();
    }
    // What was told of treatments, as "FREEZE 0", with the result.
    std::vector<std::string> Events() const {
        std::vector<std::string> events;
        std::istringstream lines(Get("events.jsonl"));
        for (std::string line; std::getline(lines, line);) {
            const auto event = nlohmann::json::parse(line);
            events.push_back(event["name"].get<std::string>() + ' ' + event["RESULT"].dump());
        }
        return events;
    }
    // Whether this machine lets a process be moved in the hierarchies.
    bool CanMove(std::initializer_list<Hierarchy> hierarchies) const {
        return std::ranges::all_of(hierarchies, [this](Hierarchy hierarchy) {
            const std::optional<Group> own = groups_.GroupOf(getpid(), hierarchy);
            const Group probe{hierarchy, own ? own->path + "/kite-probe" : ""};
            return own && CreateGroup(probe) == 0 && RemoveGroup(probe) == 0 &&
                   !groups_.IsOwnedByManager(*own);
        });
    }

    Cgroups groups_{"", false};
    std::optional<Program> culprit_;
    std::unique_ptr<Treatments> table_;
};

class WithGroups : public Actions {
  protected:
    WithGroups() { groups_ = Cgroups::OfThisMachine(); }
    void SetUp() override {
        if (!CanMove({Hierarchy::kUnified, Hierarchy::kCpuV1})) {
            GTEST_SKIP() << "no hierarchies in which a process can be moved";
        }
    }
};

// With the machine's control groups, and with none.
class EveryForm : public Actions, public testing::WithParamInterface<bool> {
  protected:
    EveryForm() { groups_ = GetParam() ? Cgroups::OfThisMachine() : groups_; }
};

INSTANTIATE_TEST_SUITE_P(, EveryForm, testing::Bool(), [](const auto& form) {
    return form.param ? std::string("with_groups") : std::string("without_groups");
});

}  // namespace

TEST_F(Actions, EveryThreadGetsItsPolicyBackAndANewOneTheMainThreads) {
    const Program& culprit = Begin({"burn", "2"});
    const pid_t pid = culprit.Pid();
    ASSERT_TRUE(Eventually([&] { return culprit.ThreadCount() == 2; }));
    const sched_param none{};
    ASSERT_EQ(sched_setscheduler(ListThreads(pid).back(), SCHED_BATCH, &none), 0);
    ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(pid), 7), 0);
    const std::string before = culprit.Standing();
    ASSERT_EQ(Suppress(), 0);
    for (const ThreadPolicy& thread : ReadThreadPolicies(pid)) {
        EXPECT_TRUE(thread.IsIdle()) << thread.tid;
    }
    ASSERT_EQ(EndSuppression(), 0);
    EXPECT_EQ(culprit.Standing(), before);

    const Program& growing = Begin({"thread"});
    ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(growing.Pid()), 7), 0);
    ASSERT_EQ(Suppress(), 0);
    growing.Signal(SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return growing.ThreadCount() == 2; }));
    ASSERT_EQ(EndSuppression(), 0);
    for (const ThreadPolicy& thread : ReadThreadPolicies(growing.Pid())) {
        EXPECT_FALSE(thread.IsIdle()) << thread.tid;
        EXPECT_EQ(thread.nice, 7) << thread.tid;
    }
}

TEST_P(EveryForm, AFreezeForATimeEndsByItselfAndTheLatestEndWins) {
    const Program& culprit = Begin();
    const auto start = Clock::now();
    ASSERT_EQ(Freeze(1000ms), 0);
    ASSERT_EQ(Freeze(1ms), 0);
    ASSERT_TRUE(StandsStill(culprit));
    ASSERT_TRUE(culprit.Runs());
    EXPECT_GE(Clock::now() - start, 1000ms);
    EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
}

TEST_F(WithGroups, AnEndThatFailsIsTriedAgainWhateverComesBetweenAndToldWhenItIsDone) {
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
    const bool isFrozenStill = table_->List().at(0).frozenSince != 0;
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

TEST_P(EveryForm, AProcessKilledWhileTreatedDiesThoughTheProcessorIsBusyAndLeavesNothing) {
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

TEST_P(EveryForm, TreatmentsOfOneProcessAreCountedAndEndInAnyOrder) {
    const Program& culprit = Begin();
    for (const bool thawFirst : {true, false}) {
        ASSERT_EQ(Freeze(), 0);
        ASSERT_EQ(Suppress(), 0);
        ASSERT_EQ(Suppress(), 0);
        ASSERT_EQ(EndSuppression(), 0);
        ASSERT_EQ(thawFirst ? Thaw() : EndSuppression(), 0);
        EXPECT_TRUE(HasRecords());
        EXPECT_TRUE(thawFirst ? culprit.Runs() : StandsStill(culprit));
        ASSERT_EQ(thawFirst ? EndSuppression() : Thaw(), 0);
        EXPECT_TRUE(culprit.Runs());
        EXPECT_FALSE(HasRecords());
    }
    EXPECT_EQ(EndSuppression(), ESRCH);
    EXPECT_EQ(Thaw(), ESRCH);
}

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

TEST_P(EveryForm, AHostKilledAtAnyStepLeavesNothingThatTheNextDoesNotRelease) {
    Log::minimumLevel = Log::Level::kError;  // a logging thread would be missing in the worker
    const Program culprit({kName, "burn"});
    const Result<UniqueFd> pidfd = OpenProcess(culprit.Pid(), culprit.StartTime());
    const std::string before = culprit.Standing();
    const auto treat = [&] {
        const TreatmentSteps steps(groups_, directory_);
        TreatmentRecord record = steps.NewRecord(culprit.Pid(), culprit.StartTime(), kName);
        const bool isDone = steps.Suppress(record, pidfd->Get()).error == 0 &&
                            steps.Freeze(record, pidfd->Get()).error == 0 &&
                            steps.Thaw(record, pidfd->Get()).Unfinished() == 0 &&
                            steps.EndSuppression(record, pidfd->Get()).Unfinished() == 0;
        _exit(isDone && record.IsEmpty() ? 0 : 1);
    };
    int calls = 1;
    for (; KillBeforeCall(calls, treat); ++calls) {
        ASSERT_TRUE(StartTable().ReleaseLeft()) << calls;
        ASSERT_TRUE(culprit.Runs()) << calls;
        ASSERT_EQ(culprit.Standing(), before) << calls;
        std::filesystem::remove(Path("treated/.unfinished"));
        ASSERT_FALSE(HasRecords()) << calls;
        for (const Hierarchy hierarchy : {Hierarchy::kUnified, Hierarchy::kCpuV1}) {
            const std::optional<Group> home = GroupOf(culprit, hierarchy);
            ASSERT_FALSE(home &&
                         std::filesystem::exists(home->path + "/kite-" + std::to_string(culprit.Pid()) + "-" +
                                                 std::to_string(culprit.StartTime())))
                << calls;
        }
    }
    EXPECT_GT(calls, 10);
}

TEST_P(EveryForm, NothingIsDoneThatCannotBeRecorded) {
    const Program& culprit = Begin();
    const std::string before = culprit.Standing();
    std::filesystem::create_directory_symlink("/tmp", Path("treated"));
    EXPECT_NE(Freeze(), 0);
    EXPECT_NE(Suppress(), 0);
    EXPECT_TRUE(culprit.Runs());
    EXPECT_EQ(culprit.Standing(), before);
}

TEST_P(EveryForm, AProcessThatSomebodyStoppedStaysStopped) {
    const Program& culprit = Begin();
    culprit.Signal(SIGSTOP);
    ASSERT_TRUE(culprit.AwaitState('T'));
    ASSERT_EQ(Freeze(), 0);
    ASSERT_EQ(Thaw(), 0);
    EXPECT_TRUE(StandsStill(culprit));
}

TEST_F(WithGroups, ChildrenGoBackAlsoWhenTheTreatedProcessIsGone) {
    const Program& culprit = Begin({"breed"});
    const std::optional<Group> home = GroupOf(culprit);
    ASSERT_EQ(Freeze(), 0);
    const Group group = *GroupOf(culprit);
    ASSERT_NE(group, *home);
    // A child that was born while the group was not frozen.
    ASSERT_EQ(WriteGroupFile(group, "cgroup.freeze", "0"), 0);
    culprit.Signal(SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return !culprit.Children().empty(); }));
    const pid_t child = culprit.Children()[0];
    Treatments& next = StartTable();
    culprit.Signal(SIGKILL);
    ASSERT_TRUE(culprit.HasEnded(kPatience));
    ASSERT_TRUE(next.ReleaseLeft());
    EXPECT_EQ(groups_.GroupOf(child, Hierarchy::kUnified), home);
    EXPECT_FALSE(std::filesystem::exists(group.path));
}

TEST_F(WithGroups, AProcessAloneInItsGroupIsTreatedThereAndTheGroupStaysAsItWas) {
    // A manager would own the groups: alone in its group, the process is treated there all the same.
    groups_ = GroupsOwnedByAManager();
    const Program& culprit = Begin();
    const Group cpu{Hierarchy::kCpuV1, GroupOf(culprit, Hierarchy::kCpuV1)->path + "/own-of-culprit"};
    const Group unified{Hierarchy::kUnified, GroupOf(culprit)->path + "/own-of-culprit"};
    for (const Group& own : {cpu, unified}) {
        ASSERT_EQ(CreateGroup(own), 0);
        ASSERT_EQ(MoveProcess(culprit.Pid(), own), 0);
    }
    ASSERT_EQ(WriteGroupFile(cpu, "cpu.shares", "512"), 0);
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Freeze(60s), 0);
    EXPECT_EQ(GroupOf(culprit), unified);
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.idle"), "1");
    EXPECT_EQ(ReadGroupFile(unified, "cgroup.freeze"), "1");
    table_->ReleaseAll();
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.idle"), "0");
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.shares"), "512");
    EXPECT_EQ(ReadGroupFile(unified, "cgroup.freeze"), "0");
    for (const Group& own : {cpu, unified}) {
        EXPECT_EQ(MoveAll(own, ParentOf(own)), 0);
        EXPECT_EQ(RemoveGroup(own), 0);
    }
}

TEST_F(Actions, AManagersGroupIsLeftAloneAndAHostThatStopsRefusesMore) {
    groups_ = GroupsOwnedByAManager();
    const Program& culprit = Begin();
    const std::string before = culprit.Standing();
    const std::optional<Group> home = GroupOf(culprit);
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Freeze(60s), 0);
    EXPECT_EQ(GroupOf(culprit), home);
    EXPECT_TRUE(StandsStill(culprit));
    EXPECT_TRUE(IsIdle(culprit.Pid()));
    table_->ReleaseAll();
    EXPECT_NE(Freeze(), 0);
    EXPECT_TRUE(culprit.Runs());
    EXPECT_EQ(culprit.Standing(), before);
    EXPECT_FALSE(HasRecords());
}

TEST_F(Actions, OnlyTheReportedProcessUnderItsNameAndProgramIsTouched) {
    const Program culprit({kName, "burn"});
    const pid_t pid = culprit.Pid();
    Treatments& table = StartTable();
    EXPECT_EQ(table.Kill(pid, kName, ""), ESRCH) << "never reported";
    EXPECT_FALSE(table.Remember(pid, culprit.StartTime() + 1, kName)) << "of another start time";
    EXPECT_EQ(table.Kill(pid, kName, ""), ESRCH);
    ASSERT_TRUE(table.Remember(pid, culprit.StartTime(), kName));
    EXPECT_EQ(table.Kill(pid, "another", ""), ESRCH);
    ASSERT_TRUE(table.Remember(pid, culprit.StartTime(), "another"));
    EXPECT_EQ(table.Freeze(pid, "another", std::nullopt), ESRCH) << "does not bear the reported name";
    EXPECT_TRUE(culprit.Runs());
}

TEST_F(Actions, AnotherProgramExecutedInTheReportedPidIsNotTouched) {
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

TEST_F(Actions, WhatWasTreatedUnderTwoNamesIsReleasedUnderBoth) {
    const Program& culprit = Begin({"become", kNewName});
    const pid_t pid = culprit.Pid();
    ASSERT_EQ(Suppress(), 0);
    culprit.Signal(SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return ReadProcessName(pid) == kNewName; }));
    EXPECT_EQ(table_->EndSuppression(pid, kNewName), ESRCH) << "not treated under that name yet";
    ASSERT_TRUE(table_->Remember(pid, culprit.StartTime(), kNewName));
    ASSERT_EQ(table_->Suppress(pid, kNewName), 0);
    ASSERT_EQ(table_->Freeze(pid, kNewName, std::nullopt), 0);
    EXPECT_EQ(table_->Thaw(pid, "stranger"), ESRCH);
    EXPECT_EQ(table_->Thaw(pid, kNewName), 0);
    EXPECT_EQ(table_->EndSuppression(pid, kNewName), 0);
    EXPECT_TRUE(HasRecords());
    EXPECT_EQ(EndSuppression(), 0);
    EXPECT_FALSE(HasRecords());
    EXPECT_FALSE(IsIdle(pid));
}

TEST_F(Actions, ChildrenOfAnIdleProcessGetItsPolicyBackAlsoWhenItIsGone) {
    for (const bool endsFirst : {false, true}) {
        const Program& culprit = Begin({"breed"});
        ASSERT_EQ(Suppress(), 0);
        culprit.Signal(SIGUSR1);
        ASSERT_TRUE(Eventually([&] { return !culprit.Children().empty(); }));
        const pid_t child = culprit.Children()[0];
        ASSERT_TRUE(IsIdle(child));
        if (endsFirst) {
            culprit.Signal(SIGKILL);
        } else {
            ASSERT_EQ(EndSuppression(), 0);
        }
        EXPECT_TRUE(Eventually([&] { return !IsIdle(child); }));
        EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
    }
}

TEST_F(Actions, TheEndOfOneSuppressionLeavesAnotherOfTheSameSession) {
    Treatments& table = StartTable();
    const Program first({kName, "burn"}, false);
    const Program second({kName, "burn"}, false);
    for (const Program* program : {&first, &second}) {
        ASSERT_TRUE(table.Remember(program->Pid(), program->StartTime(), kName));
        ASSERT_EQ(table.Suppress(program->Pid(), kName), 0);
    }
    first.Signal(SIGKILL);
    ASSERT_TRUE(Eventually([&] { return Events().back() == "RELEASE 0"; }));
    EXPECT_TRUE(IsIdle(second.Pid()));
    ASSERT_EQ(table.EndSuppression(second.Pid(), kName), 0);
    EXPECT_FALSE(IsIdle(second.Pid()));
}

TEST_F(Actions, AProcessThatCannotBeReadIsNotTakenForGone) {
    const Program culprit({kName, "burn"});
    const pid_t pid = culprit.Pid();
    const int64_t startTime = culprit.StartTime();
    const std::vector<ThreadPolicy> policies = ReadThreadPolicies(pid);
    const ProcessHandlePtr handle = ReportedProcesses(1).Remember(pid, startTime, kName);
    const auto unused = static_cast<rlim_t>(UniqueFd(dup(STDERR_FILENO)).Get());
    {
        const DescriptorLimit none(unused);
        EXPECT_EQ(RestorePolicies(pid, policies), EAGAIN);
        EXPECT_EQ(handle->Difference(kName), "it cannot be looked at");
        const DescriptorLimit one(unused + 1);
        EXPECT_EQ(OpenProcess(pid, startTime).Code(), ErrorOf(EMFILE));
    }
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/proc", nullptr, MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(OpenProcess(pid, startTime).Code(), ErrorOf(EACCES));
    EXPECT_EQ(RestoreFamily({.pid = pid}, true, policies.front(), {}), EIO);
    EXPECT_EQ(umount("/proc"), 0);
}

TEST_P(EveryForm, AStepThatFindsTheProcessGoneLeavesNoRecord) {
    const Program& culprit = Begin();
    const Result<UniqueFd> pidfd = OpenProcess(culprit.Pid(), culprit.StartTime());
    const TreatmentSteps steps(groups_, directory_);
    TreatmentRecord record = steps.NewRecord(culprit.Pid(), culprit.StartTime(), kName);
    culprit_.reset();
    EXPECT_NE(steps.Suppress(record, pidfd->Get()).error, 0);
    EXPECT_FALSE(HasRecords());
    EXPECT_NE(steps.Freeze(record, pidfd->Get()).error, 0);
    EXPECT_FALSE(HasRecords());
}

TEST_F(Actions, WhatTheSystemStandsOnIsNeverTreated) {
    Treatments& table = StartTable();
    constexpr pid_t kKernelThreadDaemon = 2;
    EXPECT_EQ(table.Kill(1, "init", ""), EPERM);
    EXPECT_EQ(table.Suppress(getpid(), "self"), EPERM);
    if (const Result<ProcessStat> stat = ReadProcessStat(kKernelThreadDaemon);
        stat && stat->IsKernelThread()) {
        EXPECT_EQ(table.Freeze(kKernelThreadDaemon, "kthreadd", std::nullopt), EPERM);
    }
    // The journal is root's program of that name, and no other's.
    const std::string journal = Path("systemd-journald");
    std::filesystem::copy_file(KITE_TARGET, journal);
    for (const uid_t owner : {0U, 1U}) {
        ASSERT_EQ(chown(journal.c_str(), owner, owner), 0);
        const Process process({.program = journal, .arguments = {kName, "burn"}});
        ASSERT_TRUE(table.Remember(process.Pid(), process.StartTime(), kName));
        EXPECT_EQ(table.Suppress(process.Pid(), kName), owner == 0 ? EPERM : 0);
    }
}

TEST_F(Actions, ARecordThatFitsNothingIsRefusedOrForgotten) {
    StartTable();
    // Bears the pid of one that was stopped, and somebody else has stopped it.
    const Program newcomer({"newcomer", "burn"});
    newcomer.Signal(SIGSTOP);
    TreatmentRecord record = RecordOf(newcomer);
    --record.startTime;
    EXPECT_TRUE(Release(record));
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(StandsStill(newcomer));
    record.bootId = "of-another-boot";
    EXPECT_TRUE(Release(record));
    EXPECT_FALSE(HasRecords());
    std::ofstream(Path("treated/12-34.json")) << R"({"boot_id":"x","pid":1})";
    EXPECT_FALSE(table_->ReleaseLeft());
    EXPECT_TRUE(table_->ReleaseLeft());
    EXPECT_TRUE(std::filesystem::exists(Path("treated/.12-34.json.bad")));
    std::filesystem::create_symlink("/etc/passwd", Path("treated/12-34.json"));
    EXPECT_FALSE(table_->ReleaseLeft());
    EXPECT_TRUE(table_->ReleaseLeft());
}

TEST_F(Actions, ARecordOfGroupsThatAreNotMountedIsKept) {
    TreatmentRecord record = RecordOf(Begin());
    record.freeze = Linux::Freeze{ChangedGroup{{Hierarchy::kUnified, "/nowhere/own"}, "0", ""}, false};
    EXPECT_FALSE(Release(record));
    EXPECT_FALSE(table_->ReleaseLeft());
    EXPECT_TRUE(HasRecords());
}

TEST_F(Actions, AReleaseWithoutOptionsFindsTheRecordsInTheirUsualPlace) {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    ASSERT_EQ(mount("none", "/run", "tmpfs", 0, nullptr), 0);
    std::filesystem::create_directories("/run/kite/treated");
    std::filesystem::permissions("/run/kite/treated", std::filesystem::perms::owner_all);
    TreatmentRecord record = RecordOf(Begin());
    record.bootId = "of-another-boot";
    ASSERT_EQ(RecordStore("/run/kite").Write(record), 0);
    EXPECT_EQ(Process({.program = KITE_HOST, .arguments = {"kite_host", "--release"}}).AwaitExit(), 0);
    EXPECT_TRUE(std::filesystem::is_empty("/run/kite/treated"));
    EXPECT_EQ(umount2("/run", MNT_DETACH), 0);
}

TEST_F(Actions, AReleaseThatLacksDescriptorsFailsAndKeepsTheRecord) {
    const Program& culprit = Begin();
    const std::string before = culprit.Standing();
    ASSERT_EQ(Suppress(), 0);
    ASSERT_EQ(Freeze(), 0);
    ASSERT_TRUE(StandsStill(culprit));
    Treatments& next = StartTable();
    const auto releaseWith = [&](rlim_t descriptors) {
        const DescriptorLimit few(descriptors);
        return next.ReleaseLeft();
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

TEST_F(Actions, WhatALivingHostTreatsIsNotLeft) {
    StartTable();
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
    EXPECT_TRUE(table_->ReleaseLeft());
    EXPECT_FALSE(HasRecords());
    record.hostPid = another.Pid();
    record.hostStartTime = another.StartTime() + 1;  // the pid is another process's by now
    EXPECT_TRUE(Release(record));
    EXPECT_FALSE(HasRecords());
}

TEST_F(Actions, ARecordNamesOnlyGroupsThatATreatmentCouldHaveChanged) {
    const Cgroups groups("30 20 0:27 / /groups rw - cgroup2 none rw\n", false);
    struct Case {
        std::string home, group, frozen;
        bool isTaken;
    };
    const Case cases[] = {{"/groups/a", "/groups/a/kite-12-34", "/groups/a/kite-12-34", true},
                          {"/groups", "/groups/kite-12-34", "/groups/own", true},
                          {"/groups/a", "/groups/a/kite-12-35", "/groups/a", false},
                          {"/groups/a", "/groups/kite-12-34", "/groups/a", false},
                          {"/etc", "/etc/kite-12-34", "/groups/a", false},
                          {"/groups/..", "/groups/../kite-12-34", "/groups/a", false},
                          {"/groups/a", "/groups/a/kite-12-34", "/groups", false},
                          {"/groups/a", "/groups/a/kite-12-34", "/groups/../etc", false}};
    for (const auto& [home, group, frozen, isTaken] : cases) {
        TreatmentRecord record;
        record.pid = 12;
        record.startTime = 34;
        record.placements.push_back({{Hierarchy::kUnified, home}, {Hierarchy::kUnified, group}});
        record.freeze = Linux::Freeze{ChangedGroup{{Hierarchy::kUnified, frozen}, "0", ""}, false};
        EXPECT_EQ(ParseRecord(WriteRecord(record)) && GroupsArePlausible(record, groups), isTaken)
            << group << ' ' << frozen;
    }
}

TEST_F(Actions, TheOldestUnheldHandleMakesRoom) {
    const Program programs[] = {Program({kName, "idle"}), Program({kName, "idle"}), Program({kName, "idle"})};
    ReportedProcesses handles(2);
    ProcessHandlePtr held;
    for (const Program& program : programs) {
        const ProcessHandlePtr handle = handles.Remember(program.Pid(), program.StartTime(), kName);
        ASSERT_NE(handle, nullptr);
        held = held ? held : handle;
    }
    EXPECT_NE(handles.Find(programs[0].Pid()), nullptr);
    EXPECT_EQ(handles.Find(programs[1].Pid()), nullptr);
    EXPECT_NE(handles.Find(programs[2].Pid()), nullptr);
}

TEST(ProcText, ACommandNameCannotPassForOtherFields) {
    const auto stat =
        ParseProcessStat("17 (a) R 9) (b)) T 1 1 1 0 -1 2097216 0 0 0 0 0 0 0 0 20 0 1 0 4242 0 0");
    ASSERT_TRUE(stat.has_value());
    EXPECT_TRUE(stat->IsStopped() && stat->IsKernelThread() && stat->startTime == 4242);
    EXPECT_FALSE(ParseProcessStat("17 (a").has_value());
    EXPECT_FALSE(ParseProcessStat("17 (a) S 1 2 3").has_value());
    // Cut off in the middle of the start time.
    EXPECT_FALSE(ParseProcessStat("17 (a) S 1 1 1 0 -1 2097216 0 0 0 0 0 0 0 0 20 0 1 0 42").has_value());
    for (const char* text : {"", " 1", "+1", "1 ", "0x1", "12a", "99999999999999999999"}) {
        EXPECT_FALSE(ParseDecimal(text).has_value()) << text;
    }
}

TEST_F(Actions, TheClientsTakeAFreezeOfAnyLengthAndNoMalformedRequest) {
    const Program culprit({kName, "burn"});
    SuspendManagerClient& suspender = SuspendManagerClient::GetInstance();
    NativeProcessInfo request;
    EXPECT_EQ(suspender.OperateOneNativeProcess(request), EINVAL);
    request.pid = culprit.Pid();
    request.processName = kName;
    request.isFreeze = true;
    request.durationMs = std::numeric_limits<int64_t>::max();
    ASSERT_TRUE(Treatments::Instance().Remember(culprit.Pid(), culprit.StartTime(), kName));
    ASSERT_EQ(suspender.OperateOneNativeProcess(request), 0);
    EXPECT_TRUE(StandsStill(culprit));
    request.isFreeze = false;
    EXPECT_EQ(suspender.OperateOneNativeProcess(request), 0);
    EXPECT_TRUE(culprit.Runs());
    for (const char* pid : {"12x", "-1", "4294967298", ""}) {
        EXPECT_EQ(ResSchedClient::GetInstance().KillProcess({{"pid", pid}, {"processName", kName}}), EINVAL);
    }
    EXPECT_EQ(ResSchedClient::GetInstance().KillProcess({}), EINVAL);
    EXPECT_EQ(ResSchedClient::GetInstance().KillProcess({{"pid", "1"}}), EINVAL);
}

}  // namespace KITE::Linux
