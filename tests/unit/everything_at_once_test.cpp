#include <functional>
#include <set>
#include <thread>

#include "resource_quota_control_impl.h"
#include "service_fixture.h"

// Everything at once, with an account of every report. The thread sanitizer sees to the locks that no account
// shows.
namespace KITE::ResourceQuotaCtl {

namespace {

using namespace std::chrono_literals;
using Kelvra::ProcessAnomalyInfo;

constexpr int kReporters = 8;
constexpr int kBatches = 40;
constexpr int32_t kApplicationInFront = 35;
constexpr int32_t kTransferringPid = 14;

// What can become of a report. A batch of a reporter has one of each.
struct Kind {
    ProcessAnomalyInfo report;
    std::vector<std::string> outcomes;  // beginnings of lines, one of which every report of the kind leads to
};

const std::vector<Kind> kKinds{
    {Report("cpu", "kill"), {"KillProcess({killReason=Kill Reason:CPU Highload"}},
    {Report("cpu", "freeze"), {"OperateOneNativeProcess("}},
    {Report("cpu", "kill", {}, 0, 13), {"E cannot verify pid and process name"}},
    {Report("cpu", "kill", {}, 3000), {"E cannot get general type"}},
    {Report("io", "kill", {}, 0, kTransferringPid), {"I pid:14 has special continuous task"}},
    {Report("cpu_ext", "", {}, 0, 12, kApplicationInFront), {"I cancel suppress, 35"}},
    {Report("cpu_ext", ""),
     {"ReportData(72, 5", "ReportData(72, 0", "KillProcess({killReason=Kill Reason:CPU_EXT Highload",
      "D process not exit"}}};  // the last when a batch beside this one has killed the process

class ConcurrencyTest : public ServiceTest {
  protected:
    ConcurrencyTest() {
        platform.files["/proc/14/cmdline"] = "/bin/foo";
        platform.runningProcesses = {{12, 34}, {12, kApplicationInFront}};
        platform.foregroundApplications = {{kApplicationInFront}};
        platform.continuousTasks = {
            std::make_shared<ContinuousTaskCallbackInfo>(34, kTransferringPid, std::vector<uint32_t>{1})};
        AddLayer(Quotas(Entry("foo", "", "'running_time':1," + Rule("cpu", 1))));
        service.OnStart();
        service.OnAddSystemAbility(1213, "");
    }

    // A batch's reports have ids of their own; those that are killed or frozen have names too, so that no two
    // actions read alike. Of the staged ones every other has the name that all reporters share.
    void ReportBatches(int reporter) {
        for (int batch = 0; batch < kBatches; ++batch) {
            std::vector<ProcessAnomalyInfo> infos;
            for (const Kind& kind : kKinds) {
                const auto number = static_cast<int>(infos.size());
                ProcessAnomalyInfo& info = infos.emplace_back(kind.report);
                info.id = (reporter * kBatches + batch) * static_cast<int>(kKinds.size()) + number;
                if (info.resType != "cpu_ext") {
                    info.processName += '.' + std::to_string(info.id);
                } else if (batch % 2 == 0) {
                    info.processName += std::to_string(reporter);
                }
            }
            while (!platform.ReportAnomalies(infos)) {
                std::this_thread::yield();  // until the manager is back
            }
            platform.RunTasks();
        }
    }
    // Again and again until the end.
    static std::jthread Beside(const std::function<void()>& action) {
        return std::jthread([action](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                action();
            }
        });
    }
    void Dump() {
        EXPECT_EQ(service.Dump(1, {u"DumpReportedAbnormalInfo"}), ERR_OK);
        EXPECT_LE(std::ranges::count(platform.saved, '\n'), 100);
        std::istringstream lines(platform.saved);
        std::set<std::string> ids;
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(ids.insert(line.substr(line.find(" id_"))).second) << line;
        }
    }
    void RunEverything() {
        const std::function<void()> actions[] = {
            [this] {
                service.OnRemoveSystemAbility(1213, "");
                service.OnAddSystemAbility(1213, "");
            },
            [core = DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()] {
                core->HandleKelvraDied();
                core->InitKelvraTaskObserver();
            },
            [] { EXPECT_GE(Ask(1, {getpid()}).ReadableBytes(), sizeof(uint64_t)); },
            [] { EXPECT_GE(Ask(2, {}).ReadableBytes(), sizeof(uint64_t)); },
            [this] { Dump(); },
            [this] { platform.Advance(1s); }};  // in which suppressions end
        std::vector<std::jthread> others(std::size(actions));
        std::ranges::transform(actions, others.begin(), Beside);
        std::vector<std::jthread> reporters;
        reporters.reserve(kReporters);
        for (int reporter = 0; reporter < kReporters; ++reporter) {
            reporters.emplace_back([this, reporter] { ReportBatches(reporter); });
        }
    }
};

TEST_F(ConcurrencyTest, EveryReportIsRecordedAndTreatedOrRefusedOnce) {
    RunEverything();
    platform.RunTasks();
    platform.Advance(6s);
    const std::vector<std::string> trace = platform.Trace();
    const auto count = [&trace](const std::string& start) {
        return std::ranges::count_if(trace, [&](const auto& line) { return line.starts_with(start); });
    };
    std::map<std::string, int> seen;  // the reports by their ids, and the actions by their lines
    for (const std::string& line : trace) {
        if (line.find("abnormal info pid is") != line.npos) {
            ++seen[line.substr(line.rfind(' ') + 1)];
        } else if (line.starts_with("OperateOne") || line.find("Reason:CPU Highload, pid") != line.npos) {
            EXPECT_EQ(++seen[line], 1) << line;
        }
    }
    constexpr int kOfEachKind = kReporters * kBatches;
    for (int id = 0; id < static_cast<int>(kKinds.size()) * kOfEachKind; ++id) {
        EXPECT_EQ(seen[std::to_string(id)], 1) << id;
    }
    for (const Kind& kind : kKinds) {
        int64_t outcomes = 0;
        for (const std::string& outcome : kind.outcomes) {
            outcomes += count(outcome);
        }
        EXPECT_EQ(outcomes, kOfEachKind) << kind.outcomes.front();
    }
    EXPECT_GT(count("ReportData(72, 5"), 0);
    EXPECT_EQ(count("ReportData(72, 5"), count("ReportData(72, 6")) << "every suppression ends once";
    EXPECT_EQ(platform.PendingTasks(), 0U);
    EXPECT_EQ(count("GetSystemAbility(501)"), 1) << "the application manager is reached once";
    std::vector<std::string> asked = platform.Calls();  // and by one at a time
    std::erase_if(asked, [](const auto& call) {
        return call != "GetAllRunningProcesses()" && call != "GetForegroundApplications()";
    });
    for (size_t i = 0; i < asked.size(); ++i) {
        ASSERT_EQ(asked[i], i % 2 == 0 ? "GetAllRunningProcesses()" : "GetForegroundApplications()") << i;
    }
}

TEST(SingletonTest, IsMadeOnceHoweverManyAskForItAtOnce) {
    static std::atomic<int> made = 0;
    struct Slow {
        Slow() {
            ++made;
            std::this_thread::sleep_for(50ms);  // in which the others ask
        }
    };
    {
        std::vector<std::jthread> users(kReporters);
        std::ranges::generate(users,
                              [] { return std::jthread([] { DelayedSingleton<Slow>::GetInstance(); }); });
    }
    EXPECT_EQ(made, 1);
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
