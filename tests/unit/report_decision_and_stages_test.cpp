#include "resource_quota_control_impl.h"
#include "service_fixture.h"
#include "singleton.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using namespace std::chrono_literals;
using Kelvra::ProcessAnomalyInfo;

const std::string kImpl = "resource_quota_control_impl: ";
constexpr int kScreenOn = 16;

std::string Impl(const std::string& line) {
    return "I " + kImpl + line;
}

// One process, pid 12 of uid 34, named "foo", that exists and is an application in the background.
class AnomalyTest : public ServiceTest {
  protected:
    AnomalyTest() {
        platform.files["/proc/12/cmdline"] = "/bin/foo";
        platform.runningProcesses = {{12, 34}};
    }

    // What handling a report leads to, after the identity check.
    std::vector<std::string> Handle(const ProcessAnomalyInfo& info) {
        platform.ClearTrace();
        impl_->HandleAbnormalInfos({info});
        auto trace = platform.Trace();
        const auto checked = std::ranges::find_if(trace, [](const auto& line) {
            return line.starts_with("D native_process_checker: real name is ");
        });
        trace.erase(trace.begin(), checked == trace.end() ? checked : checked + 1);
        return trace;
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
    ASSERT_TRUE(impl_->InitKelvraTaskObserver());
    platform.ClearTrace();
    ASSERT_TRUE(platform.ReportAnomalies({Report("cpu", "kill", {}, 0, 13), Report("cpu", "kill", {}, 3000),
                                          Report("cpu", "kill"), Report("mem", "nothing")}));
    EXPECT_THAT(platform.Trace(),
                ElementsAre("D kelvra_task_observer: OnReportAbnormalProcess called, abnormal size is 4",
                            "SubmitTask(SendHandlerEvent, 0)"));
    impl_->HandleKelvraDied();
    platform.ClearTrace();
    EXPECT_EQ(platform.RunTasks(), 1U);
    const std::string kRead = "LoadStringFromFile(/proc/12/cmdline)";
    EXPECT_THAT(platform.Calls(), ElementsAre("LoadStringFromFile(/proc/13/cmdline)", kRead, kRead,
                                              kKillForCpu[1], kKillForCpu[2], kRead))
        << "what is refused does not stop the rest";
}

TEST_F(AnomalyTest, AReportIsLoggedAndItsProcessVerified) {
    impl_->HandleAbnormalInfos({Report("cpu", "kill", {1, 3}, -1)});
    EXPECT_THAT(
        platform.Log(),
        testing::ElementsAreArray(
            {Impl("abnormal info pid is 12, uid is 34, process name is foo, process type is 4294967295, "
                  "action is kill, restype is cpu, duration is 60, condition is 1 3 id is 7"),
             std::string("D native_process_checker: real name is foo")}));
    platform.files.clear();
    platform.ClearTrace();
    impl_->HandleAbnormalInfos({Report("cpu", "kill")});
    EXPECT_THAT(
        platform.Trace(),
        ElementsAre(Impl("abnormal info pid is 12, uid is 34, process name is foo, process type is 0, "
                         "action is kill, restype is cpu, duration is 60, condition is id is 7"),
                    "LoadStringFromFile(/proc/12/cmdline)",
                    "E " + kImpl + "cannot verify pid and process name"));
    platform.ClearTrace();
    impl_->HandleAbnormalInfos({});
    EXPECT_THAT(platform.Trace(), IsEmpty());
}

TEST_F(AnomalyTest, AnAcceptedBatchIsHandledAlsoWhenNobodyElseHoldsTheCore) {
    auto core = std::make_shared<ResourceQuotaControlImpl>();
    const std::weak_ptr<ResourceQuotaControlImpl> watched = core;
    core->InitKelvraTaskObserver();
    core->SendHandlerEvent({Report("cpu_ext", "")});
    core.reset();
    EXPECT_EQ(platform.RunTasks(), 1U);
    EXPECT_THAT(platform.Calls(), Contains(testing::StartsWith("ReportData(72, 5")));
    platform.Advance(6s);
    EXPECT_THAT(platform.Calls(), Contains(testing::StartsWith("ReportData(72, 6")));
    EXPECT_TRUE(watched.expired()) << "the observer does not hold it";
}

TEST_F(AnomalyTest, OnlyGeneralTypesFrom0To2AreHandled) {
    for (const int type : {-999, 0, 999, 1000, 2999}) {
        EXPECT_EQ(Executions(Report("cpu", "kill", {}, type)), 1) << type;
    }
    for (const int type : {-1000, 3000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_THAT(Handle(Report("cpu", "kill", {}, type)),
                    ElementsAre("E " + kImpl + "cannot get general type"));
    }
}

TEST_F(AnomalyTest, TheActionDecidesWhatIsDone) {
    EXPECT_EQ(Handle(Report("cpu", "kill")), kKillForCpu);
    EXPECT_THAT(
        Handle(Report("cpu", "freeze")),
        ElementsAre("OperateOneNativeProcess(12, 34, foo, -1, -1, true)",
                    "I resource_quota_control_execute_helper: freeze process, pid is 12, uid is 34, process "
                    "name is foo result is 0"));
    EXPECT_THAT(Handle(Report("mem", "warning", {9})), testing::Each(Not(testing::HasSubstr("restype"))));
    EXPECT_THAT(
        Handle(Report("mem", "warning", {0})),
        ElementsAre("IsScreenOn()", Impl("current condition is 16, matched condition is 0"),
                    Impl("abnormal info pid is 12, uid is 34, process name is foo, process type is 0, "
                         "action is warning, restype is mem, duration is 60, condition is 0 id is 7")));
    EXPECT_THAT(Handle(Report("cpu", "Kill")), IsEmpty());
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
                ElementsAre("IsScreenOn()", Impl("current condition is 8, matched condition is 8"),
                            Impl("current condition is 8, matched condition is 0")));
}

TEST_F(AnomalyTest, ApplicationsAreInTheForegroundOrInTheBackground) {
    const auto report = Report("cpu", "", {kScreenOn}, 1000);
    const auto current = [&](int condition) {
        return Impl("current condition is ") + std::to_string(condition) + ", matched condition is 16";
    };
    const std::string matched = "I app_mgr_helper: 34 and 12 is matched";
    const std::vector<std::string> connect{"IsScreenOn()", "GetSystemAbilityManager()",
                                           "GetSystemAbility(501)"};
    platform.windowOwners = {-1, 33};
    EXPECT_THAT(Handle(report),
                ElementsAre(connect[0], connect[1], connect[2], "GetAllRunningProcesses()", matched,
                            "GetForegroundApplications()", "GetVisibilityWindowInfo()",
                            Impl("34 doesn't have visible window"), current(18)));
    platform.windowOwners = {-1, 34, 34};
    EXPECT_THAT(Handle(report), ElementsAre("IsScreenOn()", "GetAllRunningProcesses()", matched,
                                            "GetForegroundApplications()", "GetVisibilityWindowInfo()",
                                            Impl("34 has visible window"), current(17)));
    platform.foregroundApplications = {{33}, {34}};
    EXPECT_THAT(Handle(report), ElementsAre("IsScreenOn()", "GetAllRunningProcesses()", matched,
                                            "GetForegroundApplications()",
                                            "I app_mgr_helper: 34 is in foreground", current(17)));
    platform.runningProcesses = {{12, 33}, {13, 34}};
    EXPECT_THAT(Handle(report),
                ElementsAre("IsScreenOn()", "GetAllRunningProcesses()", "GetAllRenderProcesses()",
                            "GetForegroundApplications()", "I app_mgr_helper: 34 is in foreground",
                            "E " + kImpl + "34 does not match 12", current(16)));
}

class ExemptionTest : public AnomalyTest {
  protected:
    using Task = ContinuousTaskCallbackInfo;
    using Resource = ResourceCallbackInfo;

    bool IsKilled() { return Executions(Report("io", "kill")) == 1; }
};

TEST_F(ExemptionTest, ADataTransferOfTheProcessExemptsFromIoQuotasOnly) {
    platform.continuousTasks = {nullptr, std::make_shared<Task>(34, 12, std::vector<uint32_t>{3, 1})};
    EXPECT_THAT(Handle(Report("io", "kill")),
                ElementsAre("GetContinuousTaskApps()", Impl("pid 12 has data transfer continuous task"),
                            Impl("pid:12 has special continuous task, it can be exempted")));
    EXPECT_EQ(Handle(Report("cpu", "kill")), kKillForCpu);
    EXPECT_THAT(Handle(Report("io2", "")), IsEmpty());
    EXPECT_THAT(Handle(Report("cpu_ext2", "")), IsEmpty());
    platform.continuousTaskResult = 1;
    EXPECT_THAT(Handle(Report("io", "")),
                ElementsAre("GetContinuousTaskApps()", "E " + kImpl + "get continuous task failed!",
                            "GetEfficiencyResourcesInfos()"));
    platform.continuousTaskResult = 0;
    for (const auto& [uid, pid, types] :
         {std::tuple(34, 13, std::vector<uint32_t>{1}), {33, 12, {1}}, {34, 12, {2, 11}}}) {
        platform.continuousTasks = {std::make_shared<Task>(uid, pid, types)};
        EXPECT_TRUE(IsKilled());
    }
}

TEST_F(ExemptionTest, GrantedResourcesExemptByUidOrByPid) {
    platform.appResources = {nullptr, std::make_shared<Resource>(34, 0, 0x40U)};
    EXPECT_THAT(
        Handle(Report("io", "kill")),
        ElementsAre("GetContinuousTaskApps()", "GetEfficiencyResourcesInfos()",
                    "E " + kImpl + "app resource error!", Impl("uid 34 has proc resource Number: 64."),
                    Impl("pid:12 has special efficiency resource type, it can be exempted")));
    platform.appResources = {std::make_shared<Resource>(34, 0, 3U)};
    EXPECT_FALSE(IsKilled());
    platform.appResources = {std::make_shared<Resource>(33, 12, 0x41U),
                             std::make_shared<Resource>(34, 12, 0xBEU)};
    EXPECT_TRUE(IsKilled());
    platform.processResources = {nullptr, std::make_shared<Resource>(0, 12, 0x40U)};
    EXPECT_TRUE(IsKilled());
    platform.processResources = {nullptr, std::make_shared<Resource>(0, 12, 0x81U)};
    EXPECT_THAT(
        Handle(Report("io", "kill")),
        ElementsAre("GetContinuousTaskApps()", "GetEfficiencyResourcesInfos()",
                    "E " + kImpl + "process resource error!", Impl("pid 12 has proc resource Number: 129."),
                    Impl("pid:12 has special efficiency resource type, it can be exempted")));
    platform.processResources = {std::make_shared<Resource>(34, 13, 0x1U)};
    EXPECT_TRUE(IsKilled());
}

// The staged treatment of "cpu_ext".
class StagesTest : public AnomalyTest {
  protected:
    StagesTest() { Handle(Report("cpu", "")); }

    static ProcessAnomalyInfo CpuExt(int32_t pid = 12, int32_t uid = 34) {
        return Report("cpu_ext", "warning", {24}, 2000, pid, uid);
    }
    // The requests and, in their places, the lines about the treatment.
    std::vector<std::string> Treat(const ProcessAnomalyInfo& info) {
        auto trace = Handle(info);
        std::erase_if(trace, [](const std::string& line) {
            return line.find("GetAll") != line.npos || line.find("Get") == 0 ||
                   line.find("app_mgr_helper") != line.npos || line.find("visible window") != line.npos ||
                   line.find("QuillRec") == 0 || line.find("execute_helper") != line.npos;
        });
        return trace;
    }
    std::vector<std::string> Advance(std::chrono::microseconds time) {
        platform.ClearTrace();
        platform.Advance(time);
        return platform.Trace();
    }
    const std::string resource_ = Impl("resource value, processName: foo, resource: 95");
    const std::vector<std::string> suppress_{
        resource_, "ReportData(72, 5, {extType=10005, pid=12, processName=foo, uid=34})",
        Impl("process enter suppress, processName: foo, uid: 34,pid: 12"),
        "SubmitTask(ReportSuppressProcessInfo, 6000000)"};
    const std::vector<std::string> freeze_{
        resource_, "ReportData(72, 0, {extType=10005, freezeTime=2000, pid=12, processName=foo, uid=34})",
        Impl("process is freezed, processName: foo, uid: 34,pid: 12")};
    const std::vector<std::string> kill_{
        resource_, "KillProcess({killReason=Kill Reason:CPU_EXT Highload, pid=12, processName=foo})",
        Impl("kill process for quota exceed, processName: foo, uid: 34,pid: 12")};
    const std::vector<std::string> end_{"ReportData(72, 6, {extType=10005, pid=12, processName=foo, uid=34})",
                                        Impl("process exit suppress, processName: foo, uid: 34,pid: 12")};
};

TEST_F(StagesTest, SuppressesThenFreezesThenKills) {
    EXPECT_EQ(Treat(CpuExt()), suppress_);
    EXPECT_EQ(Treat(CpuExt()), freeze_);
    EXPECT_EQ(Treat(CpuExt()), kill_);
    EXPECT_THAT(Advance(5'999'999us), IsEmpty());
    auto afterKill = end_;
    afterKill[1] = Impl("process exit suppress, processName: foo, uid: 0,pid: 0");
    EXPECT_EQ(Advance(1us), afterKill);
    EXPECT_EQ(Treat(CpuExt()), suppress_);
}

TEST_F(StagesTest, NeitherConditionsNorTypesMatter) {
    for (const int type : {0, 1000, 2000}) {
        platform.Advance(6s);
        auto report = CpuExt();
        report.processType = type;
        report.conditions = {8};
        EXPECT_EQ(Treat(report), suppress_);
        report.conditions.clear();
        EXPECT_EQ(Treat(report), freeze_);
    }
}

TEST_F(StagesTest, TheFirstReportsUidIsThePayloads) {
    platform.windowOwners = {34};
    Treat(CpuExt(12, 34));
    platform.windowOwners.clear();
    auto trace = Treat(CpuExt(12, 35));
    std::erase(trace, "E " + kImpl + "35 does not match 12");
    EXPECT_EQ(trace, suppress_);
}

TEST_F(StagesTest, TheKillsResultChangesNothing) {
    platform.killResult = 3;
    Treat(CpuExt());
    Treat(CpuExt());
    EXPECT_EQ(Treat(CpuExt()), kill_);
    EXPECT_THAT(platform.Calls(), Not(Contains(testing::HasSubstr("QuillRec"))));
    EXPECT_EQ(Treat(CpuExt()), suppress_);
}

TEST_F(StagesTest, TheEndOfASuppressionStartsTheStagesAnew) {
    Treat(CpuExt());
    EXPECT_EQ(Advance(6s), end_);
    EXPECT_EQ(Treat(CpuExt()), suppress_) << "ended before the freeze";
    EXPECT_EQ(Treat(CpuExt()), freeze_);
    EXPECT_EQ(Advance(6s), end_);
    EXPECT_EQ(Treat(CpuExt()), suppress_) << "ended between freeze and kill";
    EXPECT_EQ(Treat(CpuExt()), freeze_) << "the end forgets the freeze as well";
}

TEST_F(StagesTest, ARestartedProcessIsSuppressedFirst) {
    Treat(CpuExt());
    Treat(CpuExt());
    platform.files["/proc/13/cmdline"] = "foo";
    EXPECT_THAT(Treat(CpuExt(13, 35)),
                Contains("ReportData(72, 5, {extType=10005, pid=13, processName=foo, uid=35})"));
    EXPECT_THAT(
        Treat(CpuExt(13, 36)),
        Contains("ReportData(72, 0, {extType=10005, freezeTime=2000, pid=13, processName=foo, uid=35})"));
    EXPECT_THAT(Treat(CpuExt(13, 36)),
                Contains(Impl("kill process for quota exceed, processName: foo, uid: 36,pid: 13")));
}

TEST_F(StagesTest, AnEndOfAnEarlierPidReportsThatPidAndClearsTheName) {
    Treat(CpuExt());
    platform.files["/proc/13/cmdline"] = "foo";
    Treat(CpuExt(13));
    EXPECT_THAT(Advance(6s),
                ElementsAre(end_[0], Impl("process exit suppress, processName: foo, uid: 34,pid: 13"),
                            "ReportData(72, 6, {extType=10005, pid=13, processName=foo, uid=34})",
                            Impl("process exit suppress, processName: foo, uid: 34,pid: 13")));
}

TEST_F(StagesTest, AProcessThatIsSeenIsLeftAlone) {
    const std::string cancelled = Impl("cancel suppress, 34 is in foreground or has window visible");
    platform.windowOwners = {34};
    EXPECT_EQ(Treat(CpuExt()), (std::vector{resource_, cancelled}));
    platform.windowOwners.clear();
    EXPECT_EQ(Treat(CpuExt()), suppress_);
    platform.foregroundApplications = {{34}};
    EXPECT_THAT(Treat(CpuExt()), Contains(cancelled));
    platform.runningProcesses.clear();
    platform.renderProcesses = {{12, 34}};
    EXPECT_THAT(Treat(CpuExt()), Contains(cancelled));
    platform.renderProcesses.clear();
    auto unmatched = freeze_;
    unmatched.insert(unmatched.begin() + 1, "E " + kImpl + "34 does not match 12");
    EXPECT_EQ(Treat(CpuExt()), unmatched) << "who is no application is not seen";
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
