// Treatments of real processes: programs that this test executes, and for whose sake it looks at /proc and at
// the control groups itself.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "actions/process_handles.h"
#include "actions/thread_policies.h"
#include "actions/treatment_records.h"
#include "actions/treatment_table.h"
#include "resource_schedule.h"
#include "runtime/settings.h"
#include "suspend_manager.h"
#include "system_log.h"

namespace KITE::Linux {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr const char* kRoleVariable = "KITE_ACTIONS_TEST_ROLE";
constexpr const char* kName = "culprit";
constexpr const char* kNewName = "renamed-culprit";
constexpr milliseconds kPatience{5000};

[[noreturn]] void Spin() {
    for (std::atomic<uint64_t> count = 0;; ++count) {
    }
}

// What a role waits for; blocked before it starts, so that none comes too early.
sigset_t MoreSignal() {
    sigset_t more;
    sigemptyset(&more);
    sigaddset(&more, SIGUSR1);
    return more;
}

// Two threads, one of another policy, and one more for each SIGUSR1; none burns the processor.
[[noreturn]] void BeThreads() {
    const sigset_t more = MoreSignal();
    const sched_param none{};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        sched_setscheduler(0, SCHED_BATCH, &none);
        pause();
    });
    for (int signal = 0; sigwait(&more, &signal) == 0;) {
        threads.emplace_back([] { pause(); });
    }
    _exit(0);
}

// A child for each SIGUSR1.
[[noreturn]] void BeParent() {
    const sigset_t more = MoreSignal();
    for (int signal = 0; sigwait(&more, &signal) == 0;) {
        if (fork() == 0) {
            execl("/bin/sleep", "child-of-culprit", "60", nullptr);
            _exit(1);
        }
    }
    _exit(0);
}

// Executes another program at SIGUSR1.
[[noreturn]] void BeExecuting(const char* newName) {
    const sigset_t now = MoreSignal();
    int signal = 0;
    sigwait(&now, &signal);
    execl("/bin/sleep", newName, "60", nullptr);
    _exit(1);
}

// This program is also the program that is treated: a role takes the place of the tests.
[[maybe_unused]] const bool kHasNoRole = [] {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread before main.
    const char* role = getenv(kRoleVariable);
    const std::string name = role == nullptr ? "" : role;
    if (name == "spin") {
        Spin();
    } else if (name == "threads") {
        BeThreads();
    } else if (name == "executing") {
        BeExecuting(kName);
    } else if (name == "renaming") {
        BeExecuting(kNewName);
    } else if (name == "parent") {
        BeParent();
    }
    return name.empty();
}();

bool Eventually(const std::function<bool()>& condition) {
    const auto end = Clock::now() + kPatience;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
}

// A process, usually in a session of its own, on the first processor, that dies with this object.
class Program {
  public:
    explicit Program(const char* role, const char* name = kName, bool hasOwnSession = true) : name_(name) {
        const std::string variable = std::string(kRoleVariable) + "=" + role;
        char* const arguments[] = {name_.data(), nullptr};
        char* const environment[] = {const_cast<char*>(variable.c_str()), nullptr};
        pid_ = fork();
        if (pid_ == 0) {
            if (hasOwnSession) {
                setsid();
            }
            cpu_set_t first;
            CPU_ZERO(&first);
            CPU_SET(0, &first);
            sched_setaffinity(0, sizeof(first), &first);
            const sigset_t more = MoreSignal();
            // NOLINTNEXTLINE(concurrency-mt-unsafe): the child of a fork has one thread.
            sigprocmask(SIG_BLOCK, &more, nullptr);
            execve("/proc/self/exe", arguments, environment);
            _exit(1);
        }
        EXPECT_TRUE(Eventually([&] { return ReadProcessName(pid_) == name_; }));
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() {
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    pid_t Pid() const { return pid_; }
    int64_t StartTime() const { return ReadProcStat(pid_)->startTime; }
    char State() const { return ReadProcStat(pid_)->state; }
    std::chrono::nanoseconds CpuTime() const {
        clockid_t clock{};
        timespec time{};
        EXPECT_EQ(clock_getcpuclockid(pid_, &clock), 0);
        EXPECT_EQ(clock_gettime(clock, &time), 0);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }
    double CpuShareDuring(milliseconds time) const {
        const auto before = CpuTime();
        std::this_thread::sleep_for(time);
        return std::chrono::duration<double>(CpuTime() - before) / std::chrono::duration<double>(time);
    }
    bool IsRunning() const {
        return Eventually([this, before = CpuTime()] { return CpuTime() > before; });
    }

  private:
    std::string name_;
    pid_t pid_ = -1;
};

bool StandsStill(const Program& program) {
    // SIGSTOP is taken a moment after it was accepted; a freezer has been waited for.
    const std::optional<Group> group = Cgroups::OfThisMachine().GroupOf(program.Pid(), Hierarchy::kUnified);
    const bool isInFreezer = group && ReadGroupFile(*group, "cgroup.freeze") == "1";
    EXPECT_TRUE(isInFreezer || Eventually([&] { return program.State() == 'T'; }));
    // A task that counts as frozen may have a few instructions to go before it leaves the processor.
    return program.CpuShareDuring(milliseconds(500)) < 0.002;
}

class Actions : public testing::Test {
  protected:
    Actions() : state_(std::filesystem::temp_directory_path() / ("actions-" + std::to_string(getpid()))) {
        std::filesystem::create_directory(state_);
        Settings settings;
        settings.stateDirectory = state_;
        SetSettings(settings);
    }
    ~Actions() override {
        table_.reset();
        std::filesystem::remove_all(state_);
    }

    void UseGroups() { groups_ = Cgroups::OfThisMachine(); }
    // A host starts, in place of the one before, which dies without a word.
    TreatmentTable& StartTable() {
        table_ = std::make_unique<TreatmentTable>(TreatmentTable::Options{groups_, state_});
        return *table_;
    }
    TreatmentTable& StartTableFor(const Program& program) {
        StartTable();
        EXPECT_TRUE(table_->Remember(program.Pid(), program.StartTime(), kName));
        return *table_;
    }
    bool HasRecords() const {
        const auto treated = state_ / "treated";
        return std::filesystem::exists(treated) && !std::filesystem::is_empty(treated);
    }
    // Whether this machine lets a process be moved in the hierarchy.
    bool CanMove(Hierarchy hierarchy) {
        const std::optional<Group> own = groups_.GroupOf(getpid(), hierarchy);
        const Group probe{hierarchy, own ? own->path + "/kite-probe" : ""};
        return own && CreateGroup(probe) == 0 && RemoveGroup(probe) == 0 && !groups_.IsOwnedByManager(*own);
    }

    const std::filesystem::path state_;
    Cgroups groups_{"", false};
    std::unique_ptr<TreatmentTable> table_;
};

// With the machine's control groups, and with none.
class EveryForm : public Actions, public testing::WithParamInterface<bool> {
  protected:
    EveryForm() {
        if (GetParam()) {
            UseGroups();
        }
    }
};

INSTANTIATE_TEST_SUITE_P(, EveryForm, testing::Bool(), [](const auto& form) {
    return form.param ? std::string("with_groups") : std::string("without_groups");
});

}  // namespace

TEST_F(Actions, ASuppressedProcessYieldsToACompetitorInAnotherSession) {
    UseGroups();
    if (!CanMove(Hierarchy::kCpuV1)) {
        GTEST_SKIP() << "no cpu hierarchy in which a process can be moved";
    }
    const Program culprit("spin");
    const Program competitor("spin", "competitor");
    TreatmentTable& table = StartTableFor(culprit);
    const std::optional<Group> home = groups_.GroupOf(culprit.Pid(), Hierarchy::kCpuV1);
    ASSERT_EQ(table.Suppress(culprit.Pid(), kName), 0);
    EXPECT_LE(culprit.CpuShareDuring(milliseconds(1000)), 0.05);
    ASSERT_EQ(table.EndSuppression(culprit.Pid(), kName), 0);
    EXPECT_GE(culprit.CpuShareDuring(milliseconds(1000)), 0.1);
    EXPECT_EQ(groups_.GroupOf(culprit.Pid(), Hierarchy::kCpuV1), home);
    EXPECT_FALSE(HasRecords());
}

TEST_P(EveryForm, ASuppressedProcessIsFrozenAndKilledInTimeThoughTheProcessorIsBusy) {
    const Program culprit("spin");
    const Program competitors[] = {Program("spin", "competitor"), Program("spin", "competitor"),
                                   Program("spin", "competitor")};
    TreatmentTable& table = StartTableFor(culprit);
    const UniqueFd pidfd = OpenProcess(culprit.Pid(), culprit.StartTime());
    ASSERT_EQ(table.Suppress(culprit.Pid(), kName), 0);
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, std::nullopt), 0);
    ASSERT_EQ(table.Thaw(culprit.Pid(), kName), 0);
    ASSERT_EQ(table.Kill(culprit.Pid(), kName, ""), 0);
    EXPECT_TRUE(Eventually([&] { return HasExited(pidfd.Get()); }));
}

TEST_F(Actions, EveryThreadGetsItsPolicyBackAndANewOneTheMainThreads) {
    const Program culprit("threads");
    const pid_t pid = culprit.Pid();
    ASSERT_TRUE(Eventually([&] {
        const std::vector<ThreadPolicy> threads = ReadThreadPolicies(pid);
        return std::ranges::find(threads, static_cast<uint32_t>(SCHED_BATCH), &ThreadPolicy::policy) !=
               threads.end();
    }));
    ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(pid), 7), 0);
    const std::vector<ThreadPolicy> before = ReadThreadPolicies(pid);
    TreatmentTable& table = StartTableFor(culprit);
    ASSERT_EQ(table.Suppress(pid, kName), 0);
    kill(pid, SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return ThreadsOf(pid).size() > before.size(); }));
    for (const ThreadPolicy& thread : ReadThreadPolicies(pid)) {
        EXPECT_TRUE(thread.IsIdle()) << thread.tid;
    }
    ASSERT_EQ(table.EndSuppression(pid, kName), 0);
    for (const ThreadPolicy& thread : ReadThreadPolicies(pid)) {
        const auto same = std::ranges::find(before, thread.tid, &ThreadPolicy::tid);
        const ThreadPolicy& expected = same == before.end() ? before.front() : *same;
        EXPECT_EQ(thread.policy, expected.policy) << thread.tid;
        EXPECT_EQ(thread.nice, expected.nice) << thread.tid;
    }
    EXPECT_EQ(before.front().nice, 7);
}

TEST_P(EveryForm, AFreezeForATimeEndsByItselfAndTheLatestEndWins) {
    const Program culprit("spin");
    TreatmentTable& table = StartTableFor(culprit);
    const auto start = Clock::now();
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, milliseconds(1000)), 0);
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, milliseconds(1)), 0);
    ASSERT_TRUE(StandsStill(culprit));
    const auto frozen = culprit.CpuTime();
    ASSERT_TRUE(Eventually([&] { return culprit.CpuTime() > frozen; }));
    EXPECT_GE(Clock::now() - start, milliseconds(1000));
    EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
}

TEST_F(Actions, AThawThatFailsIsTriedAgainWhateverComesBetween) {
    UseGroups();
    if (!CanMove(Hierarchy::kUnified)) {
        GTEST_SKIP() << "no unified hierarchy in which a process can be moved";
    }
    const Program culprit("spin");
    TreatmentTable& table = StartTableFor(culprit);
    ASSERT_EQ(table.Suppress(culprit.Pid(), kName), 0);
    ASSERT_EQ(table.Suppress(culprit.Pid(), kName), 0);
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, milliseconds(100)), 0);
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{3, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool isDue = Eventually([&] { return table.List().at(0).frozenUntil == 0; });
    const bool isFrozenStill = table.List().at(0).frozenSince != 0;
    const int ended = table.EndSuppression(culprit.Pid(), kName);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_TRUE(isDue && isFrozenStill);
    EXPECT_EQ(ended, 0);
    EXPECT_TRUE(culprit.IsRunning());
    EXPECT_EQ(table.EndSuppression(culprit.Pid(), kName), 0);
    EXPECT_FALSE(HasRecords());
}

TEST_P(EveryForm, AProcessKilledWhileTreatedDiesAndLeavesNothing) {
    const Program culprit("spin");
    TreatmentTable& table = StartTableFor(culprit);
    const UniqueFd pidfd = OpenProcess(culprit.Pid(), culprit.StartTime());
    ASSERT_EQ(table.Suppress(culprit.Pid(), kName), 0);
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, std::nullopt), 0);
    const std::optional<Group> unified = groups_.GroupOf(culprit.Pid(), Hierarchy::kUnified);
    ASSERT_EQ(table.Kill(culprit.Pid(), kName, "CPU"), 0);
    EXPECT_TRUE(Eventually([&] { return HasExited(pidfd.Get()); }));
    EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
    EXPECT_FALSE(unified && unified->path.find("kite-") != std::string::npos &&
                 std::filesystem::exists(unified->path));
    EXPECT_EQ(table.Kill(culprit.Pid(), kName, "CPU"), ESRCH);
}

TEST_P(EveryForm, TreatmentsOfOneProcessAreCountedAndEndInAnyOrder) {
    const Program culprit("spin");
    const pid_t pid = culprit.Pid();
    TreatmentTable& table = StartTableFor(culprit);
    for (const bool thawFirst : {true, false}) {
        ASSERT_EQ(table.Freeze(pid, kName, std::nullopt), 0);
        ASSERT_EQ(table.Suppress(pid, kName), 0);
        ASSERT_EQ(table.Suppress(pid, kName), 0);
        ASSERT_EQ(table.EndSuppression(pid, kName), 0);
        ASSERT_EQ(thawFirst ? table.Thaw(pid, kName) : table.EndSuppression(pid, kName), 0);
        EXPECT_TRUE(HasRecords());
        EXPECT_EQ(thawFirst ? culprit.IsRunning() : StandsStill(culprit), true);
        ASSERT_EQ(thawFirst ? table.EndSuppression(pid, kName) : table.Thaw(pid, kName), 0);
        EXPECT_TRUE(culprit.IsRunning());
        EXPECT_FALSE(HasRecords());
    }
    EXPECT_EQ(table.EndSuppression(pid, kName), ESRCH);
    EXPECT_EQ(table.Thaw(pid, kName), ESRCH);
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
    const Program culprit("spin");
    const pid_t pid = culprit.Pid();
    const UniqueFd pidfd = OpenProcess(pid, culprit.StartTime());
    const std::optional<Group> homes[] = {groups_.GroupOf(pid, Hierarchy::kUnified),
                                          groups_.GroupOf(pid, Hierarchy::kCpuV1)};
    const auto treat = [&] {
        const TreatmentSteps steps(groups_, state_);
        TreatmentRecord record = steps.NewRecord(pid, culprit.StartTime(), kName);
        const bool isDone = steps.Suppress(record, pidfd.Get()).error == 0 &&
                            steps.Freeze(record, pidfd.Get()).error == 0 &&
                            steps.Thaw(record, pidfd.Get()).Unfinished() == 0 &&
                            steps.EndSuppression(record, pidfd.Get()).Unfinished() == 0;
        _exit(isDone && record.IsEmpty() ? 0 : 1);
    };
    int calls = 1;
    for (; KillBeforeCall(calls, treat); ++calls) {
        TreatmentTable& next = StartTable();
        ASSERT_TRUE(next.ReleaseLeft()) << calls;
        ASSERT_TRUE(culprit.IsRunning()) << calls;
        ASSERT_FALSE(ReadThreadPolicies(pid)[0].IsIdle()) << calls;
        ASSERT_EQ(groups_.GroupOf(pid, Hierarchy::kUnified), homes[0]) << calls;
        ASSERT_EQ(groups_.GroupOf(pid, Hierarchy::kCpuV1), homes[1]) << calls;
        std::filesystem::remove(state_ / "treated" / ".unfinished");
        ASSERT_FALSE(HasRecords()) << calls;
        for (const std::optional<Group>& home : homes) {
            ASSERT_FALSE(home && std::filesystem::exists(home->path + "/kite-" + std::to_string(pid) + "-" +
                                                         std::to_string(culprit.StartTime())))
                << calls;
        }
    }
    EXPECT_GT(calls, 10);
}

TEST_P(EveryForm, StoppingTheHostReleasesAndRefusesMore) {
    const Program culprit("spin");
    TreatmentTable& table = StartTableFor(culprit);
    ASSERT_EQ(table.Suppress(culprit.Pid(), kName), 0);
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, milliseconds(60000)), 0);
    table.ReleaseAll();
    EXPECT_TRUE(culprit.IsRunning());
    EXPECT_FALSE(HasRecords());
    EXPECT_NE(table.Freeze(culprit.Pid(), kName, std::nullopt), 0);
    EXPECT_TRUE(culprit.IsRunning());
}

TEST_P(EveryForm, NothingIsDoneThatCannotBeRecorded) {
    const Program culprit("spin");
    TreatmentTable& table = StartTableFor(culprit);
    std::filesystem::create_directory_symlink("/tmp", state_ / "treated");
    EXPECT_NE(table.Freeze(culprit.Pid(), kName, std::nullopt), 0);
    EXPECT_NE(table.Suppress(culprit.Pid(), kName), 0);
    EXPECT_TRUE(culprit.IsRunning());
    EXPECT_FALSE(ReadThreadPolicies(culprit.Pid())[0].IsIdle());
}

TEST_P(EveryForm, AProcessThatSomebodyStoppedStaysStopped) {
    const Program culprit("spin");
    TreatmentTable& table = StartTableFor(culprit);
    kill(culprit.Pid(), SIGSTOP);
    ASSERT_TRUE(Eventually([&] { return culprit.State() == 'T'; }));
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, std::nullopt), 0);
    ASSERT_EQ(table.Thaw(culprit.Pid(), kName), 0);
    EXPECT_EQ(culprit.State(), 'T');
}

TEST_F(Actions, ChildrenGoBackAlsoWhenTheTreatedProcessIsGone) {
    UseGroups();
    if (!CanMove(Hierarchy::kUnified)) {
        GTEST_SKIP() << "no unified hierarchy in which a process can be moved";
    }
    const Program culprit("parent");
    StartTableFor(culprit);
    const std::optional<Group> home = groups_.GroupOf(culprit.Pid(), Hierarchy::kUnified);
    ASSERT_EQ(table_->Freeze(culprit.Pid(), kName, std::nullopt), 0);
    const Group group = *groups_.GroupOf(culprit.Pid(), Hierarchy::kUnified);
    ASSERT_NE(group, *home);
    // A child that was born while the group was not frozen.
    ASSERT_EQ(WriteGroupFile(group, "cgroup.freeze", "0"), 0);
    kill(culprit.Pid(), SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return !IsAloneIn(group, culprit.Pid()); }));
    const std::string procs = *ReadGroupFile(group, "cgroup.procs");
    const pid_t child = static_cast<pid_t>(*ParseDecimal(procs.substr(procs.rfind('\n') + 1)));
    TreatmentTable& next = StartTable();
    kill(culprit.Pid(), SIGKILL);
    ASSERT_TRUE(next.ReleaseLeft());
    EXPECT_EQ(groups_.GroupOf(child, Hierarchy::kUnified), home);
    EXPECT_FALSE(std::filesystem::exists(group.path));
}

TEST_F(Actions, AProcessAloneInItsGroupIsTreatedThereAndTheGroupStaysAsItWas) {
    UseGroups();
    for (const Hierarchy hierarchy : {Hierarchy::kCpuV1, Hierarchy::kUnified}) {
        if (!CanMove(hierarchy)) {
            GTEST_SKIP() << "no hierarchy in which a process can be moved";
        }
    }
    const Program culprit("spin");
    const pid_t pid = culprit.Pid();
    const Group cpu{Hierarchy::kCpuV1, groups_.GroupOf(pid, Hierarchy::kCpuV1)->path + "/own-of-culprit"};
    const Group unified{Hierarchy::kUnified,
                        groups_.GroupOf(pid, Hierarchy::kUnified)->path + "/own-of-culprit"};
    for (const Group& own : {cpu, unified}) {
        ASSERT_EQ(CreateGroup(own), 0);
        ASSERT_EQ(MoveProcess(pid, own), 0);
    }
    ASSERT_EQ(WriteGroupFile(cpu, "cpu.shares", "512"), 0);
    // A manager would own the groups: alone in its group, the process is treated there all the same.
    std::string mountinfo;
    ASSERT_EQ(ReadTextFile("/proc/self/mountinfo", 1 << 20, mountinfo), 0);
    groups_ = Cgroups(mountinfo, true);
    TreatmentTable& table = StartTableFor(culprit);
    ASSERT_EQ(table.Suppress(pid, kName), 0);
    ASSERT_EQ(table.Freeze(pid, kName, std::nullopt), 0);
    EXPECT_EQ(groups_.GroupOf(pid, Hierarchy::kUnified), unified);
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.idle"), "1");
    EXPECT_EQ(ReadGroupFile(unified, "cgroup.freeze"), "1");
    table.ReleaseAll();
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.idle"), "0");
    EXPECT_EQ(ReadGroupFile(cpu, "cpu.shares"), "512");
    EXPECT_EQ(ReadGroupFile(unified, "cgroup.freeze"), "0");
    for (const Group& own : {cpu, unified}) {
        EXPECT_EQ(MoveAll(own, ParentOf(own)), 0);
        EXPECT_EQ(RemoveGroup(own), 0);
    }
}

TEST_F(Actions, AManagersGroupIsLeftAlone) {
    std::string mountinfo;
    ASSERT_EQ(ReadTextFile("/proc/self/mountinfo", 1 << 20, mountinfo), 0);
    groups_ = Cgroups(mountinfo, true);
    const Program culprit("spin");
    const std::optional<Group> home = groups_.GroupOf(culprit.Pid(), Hierarchy::kUnified);
    TreatmentTable& table = StartTableFor(culprit);
    ASSERT_EQ(table.Suppress(culprit.Pid(), kName), 0);
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, std::nullopt), 0);
    EXPECT_EQ(groups_.GroupOf(culprit.Pid(), Hierarchy::kUnified), home);
    EXPECT_TRUE(StandsStill(culprit));
    EXPECT_TRUE(ReadThreadPolicies(culprit.Pid())[0].IsIdle());
    table.ReleaseAll();
    EXPECT_TRUE(culprit.IsRunning());
}

TEST_F(Actions, OnlyTheReportedProcessUnderItsNameAndProgramIsTouched) {
    const Program culprit("spin");
    const pid_t pid = culprit.Pid();
    TreatmentTable& table = StartTable();
    EXPECT_EQ(table.Kill(pid, kName, ""), ESRCH) << "never reported";
    EXPECT_FALSE(table.Remember(pid, culprit.StartTime() + 1, kName)) << "of another start time";
    EXPECT_EQ(table.Kill(pid, kName, ""), ESRCH);
    ASSERT_TRUE(table.Remember(pid, culprit.StartTime(), kName));
    EXPECT_EQ(table.Kill(pid, "another", ""), ESRCH);
    ASSERT_TRUE(table.Remember(pid, culprit.StartTime(), "another"));
    EXPECT_EQ(table.Freeze(pid, "another", std::nullopt), ESRCH) << "does not bear the reported name";
    EXPECT_TRUE(culprit.IsRunning());
}

TEST_F(Actions, AnotherProgramExecutedInTheReportedPidIsNotTouched) {
    const Program culprit("executing");
    const pid_t pid = culprit.Pid();
    const ProcStat before = *ReadProcStat(pid);
    TreatmentTable& table = StartTableFor(culprit);
    const std::optional<ExecutableIdentity> reported = ReadExecutableIdentity(pid);
    ASSERT_EQ(table.Suppress(pid, kName), 0);
    kill(pid, SIGUSR1);
    ASSERT_TRUE(
        Eventually([&] { return ReadExecutableIdentity(pid) != reported && ReadProcessName(pid) == kName; }));
    ASSERT_EQ(ReadProcStat(pid)->startTime, before.startTime);
    EXPECT_EQ(table.Kill(pid, kName, ""), ESRCH);
    EXPECT_EQ(table.Freeze(pid, kName, std::nullopt), ESRCH);
    EXPECT_EQ(table.EndSuppression(pid, kName), 0) << "what was done before is undone all the same";
    EXPECT_FALSE(HasRecords());
    EXPECT_NE(culprit.State(), 'T');
    EXPECT_NE(culprit.State(), 'Z');
}

TEST_F(Actions, WhatWasTreatedUnderTwoNamesIsReleasedUnderBoth) {
    const Program culprit("renaming");
    const pid_t pid = culprit.Pid();
    TreatmentTable& table = StartTableFor(culprit);
    ASSERT_EQ(table.Suppress(pid, kName), 0);
    kill(pid, SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return ReadProcessName(pid) == kNewName; }));
    EXPECT_EQ(table.EndSuppression(pid, kNewName), ESRCH) << "not treated under that name yet";
    ASSERT_TRUE(table.Remember(pid, culprit.StartTime(), kNewName));
    ASSERT_EQ(table.Suppress(pid, kNewName), 0);
    ASSERT_EQ(table.Freeze(pid, kNewName, std::nullopt), 0);
    EXPECT_EQ(table.Thaw(pid, "stranger"), ESRCH);
    EXPECT_EQ(table.Thaw(pid, kNewName), 0);
    EXPECT_EQ(table.EndSuppression(pid, kNewName), 0);
    EXPECT_TRUE(HasRecords());
    EXPECT_EQ(table.EndSuppression(pid, kName), 0);
    EXPECT_FALSE(HasRecords());
    EXPECT_FALSE(ReadThreadPolicies(pid)[0].IsIdle());
}

TEST_F(Actions, ChildrenOfAnIdleProcessGetItsPolicyBackAlsoWhenItIsGone) {
    for (const bool endsFirst : {false, true}) {
        const Program culprit("parent");
        const pid_t pid = culprit.Pid();
        TreatmentTable& table = StartTableFor(culprit);
        ASSERT_EQ(table.Suppress(pid, kName), 0);
        kill(pid, SIGUSR1);
        pid_t child = 0;
        const auto isChild = [&](pid_t other) {
            const std::optional<ProcStat> stat = ReadProcStat(other);
            return stat && stat->parent == pid;
        };
        ASSERT_TRUE(Eventually([&] {
            std::vector<pid_t> pids;
            EXPECT_EQ(ReadProcessIds(pids), 0);
            const auto found = std::ranges::find_if(pids, isChild);
            child = found == pids.end() ? 0 : *found;
            return child != 0;
        }));
        ASSERT_TRUE(ReadThreadPolicies(child)[0].IsIdle());
        if (endsFirst) {
            kill(pid, SIGKILL);
        } else {
            ASSERT_EQ(table.EndSuppression(pid, kName), 0);
        }
        EXPECT_TRUE(Eventually([&] { return !ReadThreadPolicies(child)[0].IsIdle(); }));
        EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
    }
}

TEST_F(Actions, TheEndOfOneSuppressionLeavesAnotherOfTheSameSession) {
    const Program first("spin", kName, false);
    TreatmentTable& table = StartTableFor(first);
    ASSERT_EQ(table.Suppress(first.Pid(), kName), 0);
    const Program second("spin", kName, false);
    ASSERT_TRUE(table.Remember(second.Pid(), second.StartTime(), kName));
    ASSERT_EQ(table.Suppress(second.Pid(), kName), 0);
    const auto record = state_ / "treated" /
                        (std::to_string(first.Pid()) + "-" + std::to_string(first.StartTime()) + ".json");
    ASSERT_TRUE(std::filesystem::exists(record));
    kill(first.Pid(), SIGKILL);
    ASSERT_TRUE(Eventually([&] { return !std::filesystem::exists(record); }));
    EXPECT_TRUE(ReadThreadPolicies(second.Pid())[0].IsIdle());
    ASSERT_EQ(table.EndSuppression(second.Pid(), kName), 0);
    EXPECT_FALSE(ReadThreadPolicies(second.Pid())[0].IsIdle());
}

TEST_F(Actions, AProcessThatCannotBeReadIsNotTakenForGone) {
    const Program culprit("spin");
    const int64_t startTime = culprit.StartTime();
    const std::vector<ThreadPolicy> policies = ReadThreadPolicies(culprit.Pid());
    const ProcessHandlePtr handle = ProcessHandles(1).Remember(culprit.Pid(), startTime, kName);
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const auto unused = static_cast<rlim_t>(UniqueFd(dup(STDERR_FILENO)).Get());
    const rlimit none{unused, usual.rlim_max};
    const rlimit one{unused + 1, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int restoreError = RestorePolicies(culprit.Pid(), policies);
    setrlimit(RLIMIT_NOFILE, &one);
    const bool isOpen = static_cast<bool>(OpenProcess(culprit.Pid(), startTime));
    const int openError = errno;
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(handle->Difference(kName), "it cannot be looked at");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(restoreError, EAGAIN);
    EXPECT_FALSE(isOpen);
    EXPECT_EQ(openError, EMFILE);
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/proc", nullptr, MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_FALSE(OpenProcess(culprit.Pid(), startTime));
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(RestoreFamily({.pid = culprit.Pid()}, true, policies.front(), {}), EIO);
    EXPECT_EQ(umount("/proc"), 0);
}

TEST_P(EveryForm, AStepThatFindsTheProcessGoneLeavesNoRecord) {
    std::optional<Program> culprit(std::in_place, "spin");
    const pid_t pid = culprit->Pid();
    const int64_t startTime = culprit->StartTime();
    const UniqueFd pidfd = OpenProcess(pid, startTime);
    const TreatmentSteps steps(groups_, state_);
    culprit.reset();
    TreatmentRecord record = steps.NewRecord(pid, startTime, kName);
    EXPECT_NE(steps.Suppress(record, pidfd.Get()).error, 0);
    EXPECT_FALSE(HasRecords());
    EXPECT_NE(steps.Freeze(record, pidfd.Get()).error, 0);
    EXPECT_FALSE(HasRecords());
}

TEST_F(Actions, WhatTheSystemStandsOnIsNeverTreated) {
    TreatmentTable& table = StartTable();
    constexpr pid_t kKernelThreadDaemon = 2;
    EXPECT_EQ(table.Kill(1, "init", ""), EPERM);
    EXPECT_EQ(table.Suppress(getpid(), "self"), EPERM);
    if (const std::optional<ProcStat> stat = ReadProcStat(kKernelThreadDaemon);
        stat && stat->IsKernelThread()) {
        EXPECT_EQ(table.Freeze(kKernelThreadDaemon, "kthreadd", std::nullopt), EPERM);
    }
}

TEST_F(Actions, ARecordThatFitsNothingIsRefusedOrForgotten) {
    TreatmentTable& table = StartTable();
    std::filesystem::create_directory(state_ / "treated");
    std::filesystem::permissions(state_ / "treated", std::filesystem::perms::owner_all);
    TreatmentRecord record;
    record.bootId = "of-another-boot";
    record.pid = 4711;
    record.processName = kName;
    record.freeze.emplace();
    ASSERT_EQ(TreatmentRecords(state_).Write(record), 0);
    EXPECT_TRUE(table.ReleaseLeft());
    EXPECT_FALSE(HasRecords());
    const Program newcomer(
        "spin");  // bears the pid of one that was stopped, and somebody else has stopped it
    kill(newcomer.Pid(), SIGSTOP);
    record.bootId = CurrentBootId();
    record.pid = newcomer.Pid();
    record.startTime = newcomer.StartTime() - 1;
    ASSERT_EQ(TreatmentRecords(state_).Write(record), 0);
    EXPECT_TRUE(table.ReleaseLeft());
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(StandsStill(newcomer));
    std::ofstream(state_ / "treated" / "12-34.json") << R"({"boot_id":"x","pid":1})";
    EXPECT_FALSE(table.ReleaseLeft());
    EXPECT_TRUE(table.ReleaseLeft());
    EXPECT_TRUE(std::filesystem::exists(state_ / "treated" / ".12-34.json.bad"));
    std::filesystem::create_symlink("/etc/passwd", state_ / "treated" / "12-34.json");
    EXPECT_FALSE(table.ReleaseLeft());
    EXPECT_TRUE(table.ReleaseLeft());
}

TEST_F(Actions, ARecordOfGroupsThatAreNotMountedIsKept) {
    const Program culprit("spin");
    TreatmentTable& table = StartTableFor(culprit);
    ASSERT_EQ(table.Freeze(culprit.Pid(), kName, std::nullopt), 0);
    ASSERT_EQ(table.Thaw(culprit.Pid(), kName), 0);
    TreatmentRecord record;
    record.bootId = CurrentBootId();
    record.pid = culprit.Pid();
    record.startTime = culprit.StartTime();
    record.freeze = Freeze{ChangedGroup{{Hierarchy::kUnified, "/nowhere/own"}, "0", ""}, false};
    ASSERT_EQ(TreatmentRecords(state_).Write(record), 0);
    EXPECT_FALSE(table.ReleaseLeft());
    EXPECT_FALSE(table.ReleaseLeft());
    EXPECT_TRUE(HasRecords());
}

TEST_F(Actions, AReleaseThatLacksDescriptorsFailsAndKeepsTheRecord) {
    const Program culprit("spin");
    StartTableFor(culprit);
    ASSERT_EQ(table_->Suppress(culprit.Pid(), kName), 0);
    ASSERT_EQ(table_->Freeze(culprit.Pid(), kName, std::nullopt), 0);
    ASSERT_TRUE(StandsStill(culprit));
    TreatmentTable& next = StartTable();
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const auto releaseWith = [&](rlim_t descriptors) {
        const rlimit few{descriptors, usual.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        const bool isReleased = next.ReleaseLeft();
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
        return isReleased;
    };
    rlim_t descriptors = 3;
    while (descriptors < usual.rlim_cur && !releaseWith(descriptors)) {
        ASSERT_TRUE(HasRecords()) << "with " << descriptors;
        ++descriptors;
    }
    EXPECT_GT(descriptors, 3U);
    EXPECT_FALSE(HasRecords());
    EXPECT_TRUE(culprit.IsRunning());
    EXPECT_FALSE(ReadThreadPolicies(culprit.Pid())[0].IsIdle());
}

TEST_F(Actions, WhatALivingHostTreatsIsNotLeft) {
    TreatmentTable& table = StartTable();
    std::filesystem::create_directory(state_ / "treated");
    std::filesystem::permissions(state_ / "treated", std::filesystem::perms::owner_all);
    const Program host("spin");
    TreatmentRecord record;
    record.bootId = CurrentBootId();
    record.pid = 4711;
    record.processName = kName;
    record.hostPid = host.Pid();
    record.hostStartTime = host.StartTime();
    ASSERT_EQ(TreatmentRecords(state_).Write(record), 0);
    EXPECT_TRUE(table.ReleaseLeft());
    EXPECT_TRUE(HasRecords());
    kill(host.Pid(), SIGKILL);  // its status is collected later
    ASSERT_TRUE(Eventually([&] { return host.State() == 'Z'; }));
    EXPECT_TRUE(table.ReleaseLeft());
    EXPECT_FALSE(HasRecords());
    const Program another("spin");
    record.hostPid = another.Pid();
    record.hostStartTime = another.StartTime() + 1;  // the pid is another process's by now
    ASSERT_EQ(TreatmentRecords(state_).Write(record), 0);
    EXPECT_TRUE(table.ReleaseLeft());
    EXPECT_FALSE(HasRecords());
}

TEST_F(Actions, ARecordNamesOnlyGroupsThatATreatmentCouldHaveChanged) {
    const Cgroups groups("30 20 0:27 / /groups rw - cgroup2 none rw\n", false);
    const auto isTaken = [&](const std::string& home, const std::string& group, const std::string& frozen) {
        TreatmentRecord record;
        record.pid = 12;
        record.startTime = 34;
        record.placements.push_back({{Hierarchy::kUnified, home}, {Hierarchy::kUnified, group}});
        record.freeze = Freeze{ChangedGroup{{Hierarchy::kUnified, frozen}, "0", ""}, false};
        return ParseRecord(WriteRecord(record)) && GroupsArePlausible(record, groups);
    };
    EXPECT_TRUE(isTaken("/groups/a", "/groups/a/kite-12-34", "/groups/a/kite-12-34"));
    EXPECT_TRUE(isTaken("/groups", "/groups/kite-12-34", "/groups/own"));
    EXPECT_FALSE(isTaken("/groups/a", "/groups/a/kite-12-35", "/groups/a"));
    EXPECT_FALSE(isTaken("/groups/a", "/groups/kite-12-34", "/groups/a"));
    EXPECT_FALSE(isTaken("/etc", "/etc/kite-12-34", "/groups/a"));
    EXPECT_FALSE(isTaken("/groups/..", "/groups/../kite-12-34", "/groups/a"));
    EXPECT_FALSE(isTaken("/groups/a", "/groups/a/kite-12-34", "/groups"));
    EXPECT_FALSE(isTaken("/groups/a", "/groups/a/kite-12-34", "/groups/../etc"));
}

TEST_F(Actions, TheOldestUnheldHandleMakesRoom) {
    const Program first("spin");
    const Program second("spin");
    const Program third("spin");
    ProcessHandles handles(2);
    const ProcessHandlePtr held = handles.Remember(first.Pid(), first.StartTime(), kName);
    ASSERT_NE(held, nullptr);
    ASSERT_NE(handles.Remember(second.Pid(), second.StartTime(), kName), nullptr);
    ASSERT_NE(handles.Remember(third.Pid(), third.StartTime(), kName), nullptr);
    EXPECT_NE(handles.Find(first.Pid()), nullptr);
    EXPECT_EQ(handles.Find(second.Pid()), nullptr);
    EXPECT_NE(handles.Find(third.Pid()), nullptr);
}

TEST(ProcText, ACommandNameCannotPassForOtherFields) {
    const std::string fields = " 1 1 1 0 -1 2097216 0 0 0 0 0 0 0 0 20 0 1 0 4242 0 0";
    const std::optional<ProcStat> stat = ParseProcStat("17 (a) R 9) (b)) T" + fields);
    ASSERT_TRUE(stat.has_value());
    EXPECT_TRUE(stat->IsStopped());
    EXPECT_TRUE(stat->IsKernelThread());
    EXPECT_EQ(stat->startTime, 4242);
    EXPECT_FALSE(ParseProcStat("17 (a").has_value());
    EXPECT_FALSE(ParseProcStat("17 (a) S 1 2 3").has_value());
    for (const char* text : {"", " 1", "+1", "1 ", "0x1", "12a", "99999999999999999999"}) {
        EXPECT_FALSE(ParseDecimal(text).has_value()) << text;
    }
}

TEST_F(Actions, AFreezeOfAnyLengthIsTaken) {
    const Program culprit("spin");
    const auto freeze = [&](bool isFreeze) {
        NativeProcessInfo request;
        request.pid = culprit.Pid();
        request.processName = kName;
        request.isFreeze = isFreeze;
        request.durationMs = std::numeric_limits<int64_t>::max();
        return SuspendManagerClient::GetInstance().OperateOneNativeProcess(request);
    };
    ASSERT_TRUE(RememberReportedProcess(culprit.Pid(), culprit.StartTime(), kName));
    ASSERT_EQ(freeze(true), 0);
    EXPECT_TRUE(StandsStill(culprit));
    EXPECT_EQ(freeze(false), 0);
    EXPECT_TRUE(culprit.IsRunning());
}

TEST(ActionClients, AMalformedRequestIsRefused) {
    ResSchedClient& client = ResSchedClient::GetInstance();
    EXPECT_EQ(client.KillProcess({}), EINVAL);
    EXPECT_EQ(client.KillProcess({{"pid", "12x"}, {"processName", kName}}), EINVAL);
    EXPECT_EQ(client.KillProcess({{"pid", "-1"}, {"processName", kName}}), EINVAL);
    EXPECT_EQ(client.KillProcess({{"pid", "4294967298"}, {"processName", kName}}), EINVAL);
    EXPECT_EQ(client.KillProcess({{"pid", "1"}}), EINVAL);
    EXPECT_EQ(SuspendManagerClient::GetInstance().OperateOneNativeProcess({}), EINVAL);
}

}  // namespace KITE::Linux
