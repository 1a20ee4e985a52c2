#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "fixture.h"

// What a host relies on fails under it: while reports arrive, while treatments begin, while they end, and
// while it stops. The log tells the truth about each, and nothing stays treated. The whole table is
// docs/faults.md.
namespace KITE::Integration {

namespace {

constexpr std::array kEvents{"SUPPRESS", "FREEZE", "KILL"};
#ifdef __SANITIZE_ADDRESS__
constexpr bool kStopsWithoutDescriptors = false;  // the sanitizer opens some for each thread that is made
#else
constexpr bool kStopsWithoutDescriptors = true;
#endif

}  // namespace

class FaultyTest : public SystemTest {
  public:
    void SetManager(bool isThere) {
        isThere ? Manager().Return() : Manager().Leave();
        EXPECT_TRUE(!isThere || QuotaHost().process.HasEnded() || Manager().AwaitSubscription());
    }
    void SetDiskFull(bool isFull) {
        const std::string filler = State() + "/filler";
        if (!isFull) {
            unlink(filler.c_str());
            return;
        }
        const Linux::UniqueFd file(open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const std::string block(4096, ' ');
        while (write(file.Get(), block.data(), block.size()) > 0) {
        }
    }
    // Of the host, if it still runs; its own hard limit if there is none. As the host's user, who needs no
    // capability for that.
    void SetLimit(__rlimit_resource resource, std::optional<rlim_t> limit) {
        const pid_t host = QuotaHost().process.Pid();
        const pid_t child = fork();
        if (child == 0) {
            rlimit limits{};
            bool isDone = setresgid(kQuotaUid, kQuotaUid, kQuotaUid) == 0 &&
                          setresuid(kQuotaUid, kQuotaUid, kQuotaUid) == 0 &&
                          prlimit(host, resource, nullptr, &limits) == 0;
            limits.rlim_cur = limit.value_or(limits.rlim_max);
            isDone = isDone && prlimit(host, resource, &limits, nullptr) == 0;
            _exit(isDone ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_TRUE(status == 0 || QuotaHost().process.HasEnded());
    }

  protected:
    // A process for an event: what it was like before, and what the log said of it, "" for nothing.
    struct Target {
        Process* process;
        std::string before;
        Kelvra::ProcessAnomalyInfo report = {};
        std::string told = {};
    };

    // In a mount namespace of this process's own, with a state directory that is easily filled.
    void SetUp() override {
        SystemTest::SetUp();
        ASSERT_EQ(0, unshare(CLONE_NEWNS));
        for (const char* point : {"/", "/proc", "/sys/fs/cgroup"}) {
            mount("none", point, nullptr, MS_REC | MS_PRIVATE, nullptr);  // the root may be no mount point
        }
        const std::string options = "size=256k,mode=755,uid=" + std::to_string(kQuotaUid);
        ASSERT_EQ(0, mount("none", State().c_str(), "tmpfs", 0, options.c_str()));
        // The leak checker itself needs what is taken away.
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // NOLINT(concurrency-mt-unsafe): one thread
    }
    void TearDown() override {
        Release();  // whatever a test that failed has left, as long as its records are there
        umount2(State().c_str(), MNT_DETACH);
        SystemTest::TearDown();
    }

    // What the log says of an event: "done by ..." or "failed: ..."; "" when it says nothing.
    std::string Told(const std::string& event, const Process& process) {
        const std::string text = QuotaHost().log.Text();
        const std::string start = event + " of pid " + std::to_string(process.Pid()) + " (" + process.Name();
        const size_t at = text.find(start);
        const size_t from = at + start.size() + std::string_view(") ").size();
        return at == std::string::npos ? "" : text.substr(from, text.find('\n', at) - from);
    }
    std::vector<Target> StartOneForEachEvent(const std::string& mode) {
        constexpr const char* kTypesAndActions[][2] = {{"cpu_ext", ""}, {"cpu", "freeze"}, {"cpu", "kill"}};
        std::vector<Target> targets;
        for (size_t i = 0; i < kEvents.size(); ++i) {
            Process& target = StartTarget(std::string("late") + kEvents[i], {mode});
            targets.push_back({&target, target.Standing(),
                               Anomaly(target, kTypesAndActions[i][0], kTypesAndActions[i][1])});
        }
        return targets;
    }
    // Waits until the reports have been handled, of which one that nobody fits is the last.
    void Report(std::vector<Target>& targets) {
        std::vector<Kelvra::ProcessAnomalyInfo> batch;
        batch.reserve(targets.size() + 1);
        for (const Target& target : targets) {
            batch.push_back(target.report);
        }
        batch.push_back(batch.back());
        batch.back().pid = 1;
        const bool isTaken = Manager().Report(batch) == 0;
        EXPECT_TRUE(!isTaken || QuotaHost().log.Await("abnormal info pid is 1,"));
        for (size_t i = 0; i < targets.size(); ++i) {
            targets[i].told = Told(kEvents[i], *targets[i].process);
        }
    }
    // That was told, and so it is.
    static void ExpectTold(const std::vector<Target>& targets, const std::array<const char*, 3>& expected) {
        for (size_t i = 0; i < targets.size(); ++i) {
            const std::string& told = targets[i].told;
            EXPECT_TRUE(*expected[i] == 0 ? told.empty() : told.starts_with(expected[i]))
                << kEvents[i] << told;
        }
        const auto isDone = [&](size_t event) { return targets[event].told.starts_with("done"); };
        EXPECT_EQ(isDone(0), targets[0].process->Standing() != targets[0].before);
        EXPECT_EQ(isDone(1), targets[1].process->StandsStill());
        EXPECT_EQ(isDone(2), targets[2].process->HasEnded(isDone(2) ? kPatience : milliseconds(100)));
    }
    void ExpectNothingTreated(const std::vector<Target>& targets) {
        EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments());
        for (const Target& target : targets) {
            EXPECT_TRUE(target.process->HasEnded() || target.process->Standing() == target.before);
        }
    }
};

// What happens to a host, and what the log says then of a suppression, a freeze and a kill: where the host
// cannot make sure which process is meant, it takes no report.
struct Fault {
    friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

    const char* name;
    std::function<void(FaultyTest& test, bool isOn)> set;
    std::array<const char*, kEvents.size()> told;
    bool isTriedAtStop = true;
    bool reachesOtherHosts = false;
};

std::function<void(FaultyTest&, bool)> Hidden(const char* directory) {
    return [directory](FaultyTest&, bool isOn) {
        EXPECT_EQ(0, isOn ? mount("none", directory, "tmpfs", 0, nullptr) : umount2(directory, MNT_DETACH));
    };
}

std::function<void(FaultyTest&, bool)> Limited(__rlimit_resource resource, rlim_t limit) {
    return [resource, limit](FaultyTest& test, bool isOn) {
        test.SetLimit(resource, isOn ? std::optional(limit) : std::nullopt);
    };
}

class FaultTest : public FaultyTest, public testing::WithParamInterface<Fault> {
  protected:
    void Set(bool isOn) {
        if (isOn_ != isOn) {
            GetParam().set(*this, isOn);
            isOn_ = isOn;
        }
    }
    void TearDown() override {
        Set(false);
        FaultyTest::TearDown();
    }

  private:
    bool isOn_ = false;
};

INSTANTIATE_TEST_SUITE_P(
    , FaultTest,
    testing::Values(
        Fault{"ManagerGone", [](FaultyTest& test, bool isOn) { test.SetManager(!isOn); }, {"", "", ""}},
        Fault{"DiskFull", &FaultyTest::SetDiskFull, {"failed", "failed", "done"}, true, true},
        Fault{"NoGroups", Hidden("/sys/fs/cgroup"), {"done", "done", "done"}, true, true},
        Fault{"NoProc", Hidden("/proc"), {"", "", ""}},
        Fault{"NoDescriptors", Limited(RLIMIT_NOFILE, 3), {"", "", ""}, kStopsWithoutDescriptors},
        Fault{"NoThreads", Limited(RLIMIT_NPROC, 1), {"done", "done", "done"}}),
    [](const auto& fault) { return fault.param.name; });

TEST_P(FaultTest, TruthIsToldAndNothingStaysTreated) {
    FakeManager& manager = StartWithFakeManager();
    LogFile& log = QuotaHost().log;
    Process& early = StartTarget("early", {"burn"});
    Process& kept = StartTarget("kept", {"burn"});
    std::vector<Target> all{{&early, early.Standing()}, {&kept, kept.Standing()}};
    std::vector<Target> late = StartOneForEachEvent("burn");
    all.insert(all.end(), late.begin(), late.end());
    ASSERT_EQ(0, manager.Report({Anomaly(early, "cpu_ext", ""), Anomaly(early, "cpu_ext", ""),
                                 Anomaly(kept, "cpu", "freeze")}));
    ASSERT_TRUE(log.Await("freeze process, pid is"));

    Set(true);
    Report(late);
    EXPECT_TRUE(Eventually([&] { return !Told("THAW", early).empty(); }));
    const auto earlyRuns = [&] { return !early.StandsStill(); };
    const bool isThawed = Told("THAW", early).starts_with("done");
    EXPECT_EQ(isThawed, isThawed ? Eventually(earlyRuns) : earlyRuns());
    Set(false);
    ExpectTold(late, GetParam().told);
    ExpectPromptAnswer();
    EXPECT_TRUE(Eventually(earlyRuns));
    EXPECT_TRUE(kept.StandsStill());

    Set(GetParam().isTriedAtStop);
    EXPECT_EQ(0, StopQuotaHost());
    EXPECT_EQ(kept.StandsStill(), log.Contains("(kept) could not be released"));
    if (GetParam().reachesOtherHosts) {
        const bool areAllReleased = Release() == 0;
        EXPECT_TRUE(!areAllReleased || !kept.StandsStill());
    }
    Set(false);
    if (!log.Contains("could not be released")) {
        ExpectNothingTreated(all);
    }
    EXPECT_EQ(0, Release());
    EXPECT_FALSE(kept.StandsStill());
    ExpectNothingTreated(all);
}

TEST_F(FaultyTest, AProcessThatCannotBeInterruptedIsTreatedAsAnyOther) {
    StartWithFakeManager();
    std::vector<Target> hanging = StartOneForEachEvent("hang");
    for (const Target& target : hanging) {
        ASSERT_TRUE(target.process->AwaitState('D'));
    }
    Report(hanging);
    ExpectTold(hanging, {"done", "done", "done"});
    EXPECT_EQ(0, StopQuotaHost());
    ExpectNothingTreated(hanging);
}

TEST_F(FaultyTest, AHostThatMayNotTreatAnotherUsersProcessSaysSo) {
    Parts().quotaCapabilities = "+sys_ptrace,+dac_read_search";
    StartWithFakeManager();
    std::vector<Target> foreign = StartOneForEachEvent("burn");
    Report(foreign);
    constexpr const char* kRefused = "failed: Operation not permitted";
    ExpectTold(foreign, {kRefused, kRefused, kRefused});
    EXPECT_EQ(0, StopQuotaHost());
    ExpectNothingTreated(foreign);
}

}  // namespace KITE::Integration
