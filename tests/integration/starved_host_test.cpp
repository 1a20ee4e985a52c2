#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "fixture.h"

// What a host relies on fails under it: while reports arrive, while treatments begin, while they end, and
// while it stops. The log tells the truth about each, and nothing stays treated. The whole table is
// docs/faults.md.
namespace KITE::Integration {

namespace {

// What is done to a process, and what its report says for that.
struct Treatment {
    std::string event;
    const char* resourceType;
    const char* action;
};

const std::array<Treatment, 3> kTreatments{
    {{"SUPPRESS", "cpu_ext", ""}, {"FREEZE", "cpu", "freeze"}, {"KILL", "cpu", "kill"}}};

// What the log says of each treatment: how that begins. "" where it must say nothing.
using Told = std::array<const char*, kTreatments.size()>;

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
        const std::string filler = State("/filler");
        EXPECT_EQ(isFull,
                  Linux::Is(Linux::WriteFile(filler, std::string(isFull ? 1 << 20 : 0, ' ')), ENOSPC));
        EXPECT_TRUE(isFull || std::filesystem::remove(filler));
    }
    // Of the host, if it still runs; as "nofile=3:". Asked as the host's user, who needs no capability for
    // that.
    void SetSoftLimit(const std::string& limit) {
        const Process& host = QuotaHost().process;
        Process prlimit({.program = "/usr/bin/prlimit",
                         .arguments = {"prlimit", "--pid", std::to_string(host.Pid()), "--" + limit},
                         .uid = kQuotaUid});
        EXPECT_TRUE(prlimit.AwaitExit() == 0 || host.HasEnded());
    }

  protected:
    struct Target {
        Process* process;
        std::string before;  // how it stood
        Kelvra::ProcessAnomalyInfo report = {};
        std::string told = {};  // what the log said of its treatment; "" for nothing
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
    std::string ToldOf(const std::string& event, const Process& process) {
        const std::string text = QuotaHost().log.Text();
        const std::string start =
            event + " of pid " + std::to_string(process.Pid()) + " (" + process.Name() + ") ";
        const size_t at = text.find(start);
        return at == std::string::npos
                   ? ""
                   : text.substr(at + start.size(), text.find('\n', at) - at - start.size());
    }
    // One for each treatment.
    std::vector<Target> StartTargets(const std::string& mode) {
        std::vector<Target> targets;
        for (const Treatment& treatment : kTreatments) {
            Process& target = StartTarget("late" + treatment.event, {mode});
            EXPECT_TRUE(mode != "hang" || target.AwaitState('D'));
            targets.push_back(
                {&target, target.Standing(), Anomaly(target, treatment.resourceType, treatment.action)});
        }
        return targets;
    }
    // Waits until the reports have been handled, of which one that fits no process is the last.
    void ReportAll(std::vector<Target>& targets) {
        std::vector<Kelvra::ProcessAnomalyInfo> batch;
        std::ranges::transform(targets, std::back_inserter(batch), &Target::report);
        batch.push_back(batch.back());
        batch.back().pid = 1;
        const bool isTaken = Manager().Report(batch) == 0;
        EXPECT_TRUE(!isTaken || QuotaHost().log.Await("abnormal info pid is 1,"));
        for (size_t i = 0; i < targets.size(); ++i) {
            targets[i].told = ToldOf(kTreatments[i].event, *targets[i].process);
        }
    }
    // That was told, and so it is.
    static void ExpectTold(const std::vector<Target>& targets, const Told& expected) {
        for (size_t i = 0; i < targets.size(); ++i) {
            const std::string& told = targets[i].told;
            EXPECT_TRUE(*expected[i] == 0 ? told.empty() : told.starts_with(expected[i]))
                << kTreatments[i].event << " " << told;
        }
        const auto isDone = [&](size_t treatment) { return targets[treatment].told.starts_with("done"); };
        EXPECT_EQ(isDone(0), targets[0].process->Standing() != targets[0].before);
        EXPECT_EQ(isDone(1), targets[1].process->StandsStill());
        EXPECT_EQ(isDone(2), targets[2].process->HasEnded(isDone(2) ? kPatience : milliseconds(100)));
    }
    void ExpectNothingTreated(const std::vector<Target>& targets) {
        ExpectNoTraces();
        for (const Target& target : targets) {
            EXPECT_TRUE(target.process->HasEnded() || target.process->Standing() == target.before);
        }
    }
    // Each treatment of a process of that mode, and the stop.
    void TreatAndStop(const std::string& mode, const Told& expected) {
        StartWithFakeManager();
        std::vector<Target> targets = StartTargets(mode);
        ReportAll(targets);
        ExpectTold(targets, expected);
        EXPECT_EQ(0, StopQuotaHost());
        ExpectNothingTreated(targets);
    }
};

// What happens to a host, and what the log says then: where the host cannot make sure which process is meant,
// it takes no report.
struct Fault {
    friend void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

    const char* name;
    std::function<void(FaultyTest& test, bool isOn)> set;
    Told told;
    bool isTriedAtStop = true;
    bool reachesOtherHosts = false;
};

std::function<void(FaultyTest&, bool)> Hidden(const char* directory) {
    return [directory](FaultyTest&, bool isOn) {
        EXPECT_EQ(0, isOn ? mount("none", directory, "tmpfs", 0, nullptr) : umount2(directory, MNT_DETACH));
    };
}

std::function<void(FaultyTest&, bool)> Limited(const char* limit, const char* usual) {
    return [=](FaultyTest& test, bool isOn) { test.SetSoftLimit(isOn ? limit : usual); };
}

class FaultTest : public FaultyTest, public testing::WithParamInterface<Fault> {
  protected:
    void Set(bool isOn) { GetParam().set(*this, isOn); }
};

INSTANTIATE_TEST_SUITE_P(
    , FaultTest,
    testing::Values(
        Fault{"ManagerGone", [](FaultyTest& test, bool isOn) { test.SetManager(!isOn); }, {"", "", ""}},
        Fault{"DiskFull", &FaultyTest::SetDiskFull, {"failed", "failed", "done"}, true, true},
        Fault{"NoGroups", Hidden("/sys/fs/cgroup"), {"done", "done", "done"}, true, true},
        Fault{"NoProc", Hidden("/proc"), {"", "", ""}},
        Fault{"NoDescriptors", Limited("nofile=3:", "nofile=256:"), {"", "", ""}, kStopsWithoutDescriptors},
        Fault{"NoThreads", Limited("nproc=1:", "nproc=1000:"), {"done", "done", "done"}}),
    [](const auto& fault) { return fault.param.name; });

TEST_P(FaultTest, TruthIsToldAndNothingStaysTreated) {
    StartWithFakeManager();
    Process& early = StartTarget("early", {"burn"});
    Process& kept = StartTarget("kept", {"burn"});
    std::vector<Target> all{{&early, early.Standing()}, {&kept, kept.Standing()}};
    std::vector<Target> late = StartTargets("burn");
    all.insert(all.end(), late.begin(), late.end());
    Report({Anomaly(early, "cpu_ext", ""), Anomaly(early, "cpu_ext", ""), Anomaly(kept, "cpu", "freeze")},
           kFrozen);

    Set(true);
    ReportAll(late);
    EXPECT_TRUE(Eventually([&] { return !ToldOf("THAW", early).empty(); }));
    const auto earlyRuns = [&] { return !early.StandsStill(); };
    const bool isThawed = ToldOf("THAW", early).starts_with("done");
    EXPECT_EQ(isThawed, isThawed ? Eventually(earlyRuns) : earlyRuns());
    Set(false);
    ExpectTold(late, GetParam().told);
    ExpectPromptAnswer();
    EXPECT_TRUE(Eventually(earlyRuns));
    EXPECT_TRUE(kept.StandsStill());

    if (GetParam().isTriedAtStop) {
        Set(true);
    }
    EXPECT_EQ(0, StopQuotaHost());
    const LogFile& log = QuotaHost().log;
    EXPECT_EQ(kept.StandsStill(), log.Contains("(kept) could not be released"));
    if (GetParam().reachesOtherHosts) {
        const bool areAllReleased = Release() == 0;
        EXPECT_TRUE(!areAllReleased || !kept.StandsStill());
    }
    if (GetParam().isTriedAtStop) {
        Set(false);
    }
    if (!log.Contains("could not be released")) {
        ExpectNothingTreated(all);
    }
    EXPECT_EQ(0, Release());
    EXPECT_FALSE(kept.StandsStill());
    ExpectNothingTreated(all);
}

TEST_F(FaultyTest, AProcessThatCannotBeInterruptedIsTreatedAsAnyOther) {
    TreatAndStop("hang", {"done", "done", "done"});
}

TEST_F(FaultyTest, AHostThatMayNotTreatAnotherUsersProcessSaysSo) {
    Parts().quotaCapabilities = "+sys_ptrace,+dac_read_search";
    constexpr const char* kRefused = "failed: Operation not permitted";
    TreatAndStop("burn", {kRefused, kRefused, kRefused});
}

}  // namespace KITE::Integration
