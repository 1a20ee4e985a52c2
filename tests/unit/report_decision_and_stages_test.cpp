#include "resource_quota_control_impl.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using namespace std::chrono_literals;
using Kelvra::ProcessAnomalyInfo;
using testing::StartsWith;

// The line of a report of pid 12.
std::string Told(const std::string& type, const std::string& rest) {
    return "I abnormal info pid is 12, uid is 34, process name is foo, process type is " + type +
           ", action is " + rest + "7";
}

// The process is an application of uid 34 in the background.
class AnomalyTest : public ServiceTest {
  protected:
    AnomalyTest() { platform.runningProcesses = {{12, 34}}; }

    // What handling a report leads to, but for its own line and the check of its process.
    std::vector<std::string> Handle(const ProcessAnomalyInfo& info) {
        return TraceOf(
            [&] { impl_->HandleAbnormalInfos({info}); },
            {"(HandleAbnormalInfos)", "LoadStringFromFile", "native_process_checker", "GetSystemAbility"});
    }
    // How often the action was executed.
    int64_t Executions(const ProcessAnomalyInfo& info) {
        return std::ranges::count_if(Handle(info),
                                     [](const auto& line) { return line.starts_with("KillProcess("); });
    }

    const std::shared_ptr<ResourceQuotaControlImpl> impl_ = std::make_shared<ResourceQuotaControlImpl>();
};

const std::vector<std::string> kKillForCpu = KillTrace("12", "cpu", "Kill Reason:CPU Highload");

TEST_F(AnomalyTest, ABatchIsHandledByOneTaskAndSurvivesTheManagersDeath) {
    const std::vector batch{Report("cpu", "kill", {}, 0, 13), Report("cpu", "kill", {}, 3000),
                            Report("cpu", "kill"), Report("cpu_ext", "", {}, 3000), Report("cpu_ext", "")};
    for (const bool hasManagerGone : {true, false}) {
        auto core = std::make_shared<ResourceQuotaControlImpl>();
        const std::weak_ptr<ResourceQuotaControlImpl> watched = core;
        ASSERT_TRUE(core->InitKelvraTaskObserver());
        EXPECT_THAT(TraceOf([&] { platform.ReportAnomalies(batch); }),
                    ElementsAre("D OnReportAbnormalProcess called, abnormal size is 5",
                                "SubmitTask(SendHandlerEvent, 0)"));
        if (hasManagerGone) {
            core->HandleKelvraDied();
        }
        core.reset();
        const auto calls = [&] {
            auto all = platform.Calls();
            std::erase_if(all, [](const auto& call) { return call.starts_with("Get"); });
            return all;
        };
        platform.ClearTrace();
        EXPECT_EQ(platform.RunTasks(), 1U);
        const std::string read = "LoadStringFromFile(/proc/12/cmdline)";
        EXPECT_THAT(calls(), ElementsAre("LoadStringFromFile(/proc/13/cmdline)", read, read, kKillForCpu[1],
                                         kKillForCpu[2], read, read, StartsWith("ReportData(72, 5"),
                                         StartsWith("SubmitTask")))
            << "what is refused does not stop the rest";
        platform.Advance(6s);
        EXPECT_THAT(calls(), Contains(StartsWith("ReportData(72, 6")));
        EXPECT_TRUE(watched.expired()) << "the observer does not hold it";
    }
}

TEST_F(AnomalyTest, AReportIsLoggedAndItsProcessVerified) {
    const auto handle = [&](const std::vector<ProcessAnomalyInfo>& infos) {
        return TraceOf([&] { impl_->HandleAbnormalInfos(infos); });
    };
    const std::string read = "LoadStringFromFile(/proc/12/cmdline)";
    EXPECT_THAT(handle({Report("cpu", "", {1, 3}, -1)}),
                ElementsAre(Told("4294967295", ", restype is cpu, duration is 60, condition is 1 3 id is "),
                            read, "D real name is foo", "IsScreenOn()"));
    platform.files.clear();
    EXPECT_THAT(handle({Report("cpu", "kill")}),
                ElementsAre(Told("0", "kill, restype is cpu, duration is 60, condition is id is "), read,
                            "E cannot verify pid and process name"));
    EXPECT_THAT(handle({}), IsEmpty());
}

TEST_F(AnomalyTest, TheActionDecidesWhatIsDoneForGeneralTypesFrom0To2) {
    EXPECT_EQ(Handle(Report("cpu", "kill")), kKillForCpu);
    EXPECT_THAT(Handle(Report("cpu", "freeze")),
                ElementsAre("OperateOneNativeProcess(12, 34, foo, -1, -1, true)",
                            StartsWith("I freeze process, pid is 12, uid is 34")));
    EXPECT_THAT(Handle(Report("mem", "warning", {9})), ElementsAre("IsScreenOn()"));
    EXPECT_THAT(Handle(Report("mem", "warning", {0})),
                ElementsAre("IsScreenOn()", "I current condition is 16, matched condition is 0",
                            Told("0", "warning, restype is mem, duration is 60, condition is 0 id is ")));
    EXPECT_THAT(Handle(Report("cpu", "Kill")), IsEmpty());
    for (const int type : {-999, 0, 999, 1000, 2999}) {
        EXPECT_EQ(Executions(Report("cpu", "kill", {}, type)), 1) << type;
    }
    for (const int type : {-1000, 3000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_THAT(Handle(Report("cpu", "kill", {}, type)), IsEmpty());
        EXPECT_EQ(platform.Log().back(), "E cannot get general type");
    }
}

TEST_F(AnomalyTest, AConditionMatchesWhenAllOfItsBitsAreSet) {
    const std::pair<std::vector<uint32_t>, std::pair<int, int>> cases[] = {
        // conditions, executions with the screen on and off; a process that is no application is never in the
        // foreground or background
        {{}, {1, 1}},   {{0}, {1, 1}},          {{8}, {0, 1}},     {{16}, {1, 0}},
        {{24}, {0, 0}}, {{8, 0}, {1, 2}},       {{2}, {0, 0}},     {{1}, {0, 0}},
        {{4}, {0, 0}},  {{0x80000000}, {0, 0}}, {{8, 16}, {1, 1}},
    };
    for (const auto& [conditions, expected] : cases) {
        SCOPED_TRACE(testing::PrintToString(conditions));
        platform.isScreenOn = true;
        EXPECT_EQ(Executions(Report("cpu", "kill", conditions)), expected.first);
        platform.isScreenOn = false;
        EXPECT_EQ(Executions(Report("cpu", "kill", conditions)), expected.second);
        EXPECT_EQ(Executions(Report("cpu", "kill", conditions, 2000)), 1)
            << "extensions act whatever the condition";
    }
    EXPECT_THAT(Handle(Report("cpu", "", {8, 0})),
                ElementsAre("IsScreenOn()", "I current condition is 8, matched condition is 8",
                            "I current condition is 8, matched condition is 0"));
}

TEST_F(AnomalyTest, ApplicationsAreInTheForegroundOrInTheBackground) {
    const auto expectSeen = [&](std::vector<std::string> expected, const std::string& current) {
        expected.insert(expected.begin(), {"IsScreenOn()", "GetAllRunningProcesses()"});
        expected.push_back("I current condition is " + current + ", matched condition is 16");
        EXPECT_EQ(Handle(Report("cpu", "", {16}, 1000)), expected);
    };
    const std::string matched = "I 34 and 12 is matched";
    const std::string front = "GetForegroundApplications()";
    const std::string windows = "GetVisibilityWindowInfo()";
    platform.windowOwners = {-1, 33};
    expectSeen({matched, front, windows, "I 34 doesn't have visible window"}, "18");
    platform.windowOwners = {-1, 34, 34};
    expectSeen({matched, front, windows, "I 34 has visible window"}, "17");
    platform.foregroundApplications = {{33}, {34}};
    expectSeen({matched, front, "I 34 is in foreground"}, "17");
    platform.runningProcesses = {{12, 33}, {13, 34}};
    expectSeen({"GetAllRenderProcesses()", front, "I 34 is in foreground", "E 34 does not match 12"}, "16");
}

TEST_F(AnomalyTest, ADataTransferOfTheProcessExemptsFromIoQuotasOnly) {
    using Task = ContinuousTaskCallbackInfo;
    platform.continuousTasks = {nullptr, std::make_shared<Task>(34, 12, std::vector<uint32_t>{3, 1})};
    EXPECT_THAT(Handle(Report("io", "kill")),
                ElementsAre("GetContinuousTaskApps()", "I pid 12 has data transfer continuous task",
                            "I pid:12 has special continuous task, it can be exempted"));
    EXPECT_EQ(Handle(Report("cpu", "kill")), kKillForCpu);
    EXPECT_THAT(Handle(Report("io2", "")), IsEmpty());
    EXPECT_THAT(Handle(Report("cpu_ext2", "")), IsEmpty());
    platform.continuousTaskResult = 1;
    EXPECT_THAT(Handle(Report("io", "")),
                ElementsAre("GetContinuousTaskApps()", "E get continuous task failed!",
                            "GetEfficiencyResourcesInfos()"));
    platform.continuousTaskResult = 0;
    for (const auto& [uid, pid, types] :
         {std::tuple(34, 13, std::vector<uint32_t>{1}), {33, 12, {1}}, {34, 12, {2, 11}}}) {
        platform.continuousTasks = {std::make_shared<Task>(uid, pid, types)};
        EXPECT_EQ(Executions(Report("io", "kill")), 1);
    }
}

TEST_F(AnomalyTest, GrantedResourcesExemptFromIoQuotasByUidOrByPid) {
    const struct {
        bool isOfApplication;
        int32_t uid;
        int32_t pid;
        uint32_t number;
        std::string exempts;  // whom, as the log says; empty for none
    } cases[] = {{true, 34, 0, 0x40, "uid 34"}, {true, 34, 0, 3, "uid 34"}, {true, 33, 12, 0x41, ""},
                 {true, 34, 12, 0xBE, ""},      {false, 0, 12, 0x40, ""},   {false, 0, 12, 0x81, "pid 12"},
                 {false, 34, 13, 1, ""}};
    for (const auto& [isOfApplication, uid, pid, number, exempts] : cases) {
        const auto resource = std::make_shared<ResourceCallbackInfo>(uid, pid, number);
        platform.appResources = platform.processResources = {nullptr};
        (isOfApplication ? platform.appResources : platform.processResources).push_back(resource);
        const auto trace = Handle(Report("io", "kill"));
        EXPECT_THAT(trace, Contains("E app resource error!"));
        EXPECT_EQ(std::ranges::count(trace, "E process resource error!"),
                  isOfApplication && !exempts.empty() ? 0 : 1);
        const std::string told = " has proc resource Number: ";
        const std::string line = "I " + exempts + told + std::to_string(number) + ".";
        EXPECT_EQ(std::ranges::count_if(
                      trace, [&](const auto& logged) { return logged.find(told) != std::string::npos; }),
                  exempts.empty() ? 0 : 1);
        EXPECT_EQ(std::ranges::count(trace, line), exempts.empty() ? 0 : 1);
        EXPECT_THAT(
            trace.back(),
            StartsWith(exempts.empty() ? "I quillrec"
                                       : "I pid:12 has special efficiency resource type, it can be exempted"))
            << number;
    }
}

// The staged treatment of "cpu_ext".
class StagesTest : public AnomalyTest {
  protected:
    static ProcessAnomalyInfo CpuExt(int32_t pid = 12, int32_t uid = 34) {
        return Report("cpu_ext", "warning", {24}, 2000, pid, uid);
    }
    // The requests and, in their places, the lines about the treatment.
    std::vector<std::string> Treat(const ProcessAnomalyInfo& info = CpuExt()) {
        return TraceOf([&] { impl_->HandleAbnormalInfos({info}); },
                       {"(HandleAbnormalInfos)", "LoadStringFromFile", "native_process_checker", "Get",
                        "app_mgr_helper", "CheckVisibilityWindowInfo", "QuillRec", "execute_helper"});
    }
    std::vector<std::string> Advance(std::chrono::microseconds time) {
        return TraceOf([&] { platform.Advance(time); });
    }
    static std::string Ended(int uid, int pid) {
        return "I process exit suppress, processName: foo, uid: " + std::to_string(uid) +
               ",pid: " + std::to_string(pid);
    }

    const std::string resource_ = "I resource value, processName: foo, resource: 95";
    const std::vector<std::string> suppress_{
        resource_, "ReportData(72, 5, {extType=10005, pid=12, processName=foo, uid=34})",
        "I process enter suppress, processName: foo, uid: 34,pid: 12",
        "SubmitTask(ReportSuppressProcessInfo, 6000000)"};
    const std::vector<std::string> freeze_{
        resource_, "ReportData(72, 0, {extType=10005, freezeTime=2000, pid=12, processName=foo, uid=34})",
        "I process is freezed, processName: foo, uid: 34,pid: 12"};
    const std::vector<std::string> kill_{
        resource_, "KillProcess({killReason=Kill Reason:CPU_EXT Highload, pid=12, processName=foo})",
        "I kill process for quota exceed, processName: foo, uid: 34,pid: 12"};
    const std::string endRequest_ = "ReportData(72, 6, {extType=10005, pid=12, processName=foo, uid=34})";
};

TEST_F(StagesTest, SuppressesThenFreezesThenKillsWhateverConditionsTypesAndTheKillsResult) {
    for (const int type : {0, 1000, 2000}) {
        ProcessAnomalyInfo report = CpuExt();
        report.processType = type;
        platform.killResult = type;
        EXPECT_EQ(Treat(report), suppress_);
        report.conditions = {8};
        EXPECT_EQ(Treat(report), freeze_);
        report.conditions.clear();
        EXPECT_EQ(Treat(report), kill_);
        EXPECT_EQ(platform.Calls().back().starts_with("Quill"), type == 0);
        EXPECT_THAT(Advance(5'999'999us), IsEmpty());
        EXPECT_THAT(Advance(1us), ElementsAre(endRequest_, Ended(0, 0)));
    }
    for (const auto& stage : {suppress_, freeze_, kill_, suppress_}) {
        EXPECT_EQ(Treat(), stage) << "a kill forgets the stages at once";
    }
}

TEST_F(StagesTest, TheEndOfASuppressionStartsTheStagesAnew) {
    const auto ended = testing::ElementsAre(endRequest_, Ended(34, 12));
    Treat();
    EXPECT_THAT(Advance(6s), ended);
    EXPECT_EQ(Treat(), suppress_) << "ended before the freeze";
    EXPECT_EQ(Treat(), freeze_);
    EXPECT_THAT(Advance(6s), ended);
    EXPECT_EQ(Treat(), suppress_) << "ended between freeze and kill";
    EXPECT_EQ(Treat(), freeze_) << "the end forgets the freeze as well";
}

TEST_F(StagesTest, PayloadsBearTheUidOfTheFirstReportAndTheKillsLineThatOfTheLast) {
    platform.windowOwners = {34};
    Treat();
    platform.windowOwners.clear();
    EXPECT_THAT(Treat(CpuExt(12, 35)), testing::IsSupersetOf({suppress_[1], suppress_[2]}));
    EXPECT_THAT(Treat(CpuExt(12, 36)), Contains(freeze_[1]));
    platform.files["/proc/13/cmdline"] = "foo";
    const std::string restarted = ", pid=13, processName=foo, uid=35})";
    EXPECT_THAT(Treat(CpuExt(13, 35)), Contains("ReportData(72, 5, {extType=10005" + restarted));
    EXPECT_THAT(Treat(CpuExt(13, 36)),
                Contains("ReportData(72, 0, {extType=10005, freezeTime=2000" + restarted));
    EXPECT_THAT(Treat(CpuExt(13, 37)),
                Contains("I kill process for quota exceed, processName: foo, uid: 37,pid: 13"));
}

TEST_F(StagesTest, AnEndOfAnEarlierPidReportsThatPidAndClearsTheName) {
    Treat();
    platform.files["/proc/13/cmdline"] = "foo";
    Treat(CpuExt(13));
    const std::string later = "ReportData(72, 6, {extType=10005, pid=13, processName=foo, uid=34})";
    EXPECT_THAT(Advance(6s), ElementsAre(endRequest_, Ended(34, 13), later, Ended(34, 13)));
}

TEST_F(StagesTest, AProcessThatIsSeenIsLeftAlone) {
    const std::vector cancelled{resource_,
                                std::string("I cancel suppress, 34 is in foreground or has window visible")};
    platform.windowOwners = {34};
    EXPECT_EQ(Treat(), cancelled);
    platform.windowOwners.clear();
    EXPECT_EQ(Treat(), suppress_);
    platform.foregroundApplications = {{34}};
    EXPECT_EQ(Treat(), cancelled);
    platform.runningProcesses.clear();
    platform.renderProcesses = {{12, 34}};
    EXPECT_EQ(Treat(), cancelled);
    platform.renderProcesses.clear();
    auto unmatched = freeze_;
    unmatched.insert(unmatched.begin() + 1, "E 34 does not match 12");
    EXPECT_EQ(Treat(), unmatched) << "what is no application is not seen";
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
