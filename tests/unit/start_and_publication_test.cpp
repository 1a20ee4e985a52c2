#include "resource_quota_control_impl.h"
#include "resource_quota_control_service.h"
#include "service_fixture.h"
#include "singleton.h"

namespace KITE::ResourceQuotaCtl {

namespace {

class LifecycleTest : public ServiceTest {
  protected:
    std::vector<std::string> TraceOf(const std::function<void()>& action) {
        platform.ClearTrace();
        action();
        auto trace = platform.Trace();
        std::erase_if(trace, [](const std::string& line) {
            return line.find("res_policy_manager") != line.npos || line.find("json_utils") != line.npos ||
                   line.find("CfgDirList") != line.npos;
        });
        return trace;
    }
    std::vector<std::string> Start() {
        return TraceOf([this] { service.OnStart(); });
    }
    std::vector<std::string> Add(int32_t id) {
        return TraceOf([this, id] { service.OnAddSystemAbility(id, ""); });
    }
    std::vector<std::string> Remove(int32_t id) {
        return TraceOf([this, id] { service.OnRemoveSystemAbility(id, ""); });
    }
    void AddOneRule() { AddLayer(Quotas(Entry("A", "", Rule("cpu", 1)))); }

    SystemAbility& service = *platform.registeredAbility;
};

const std::string kService = "resource_quota_control_service: ";
const std::string kImpl = "resource_quota_control_impl: ";
const std::string kAdded = "I " + kService + "Add system ability systemAbilityId:1213";
const std::string kSubscribed = "I " + kImpl + "InitKelvraTaskObserver successfully";
const std::string kPublished = "I " + kService + "publish resource quota control service successfully!";

TEST_F(LifecycleTest, LoadingReadsTheSwitchRegistersAndReadsTheBuildKindInThisOrder) {
    const std::string readSwitch = "GetBoolParameter(persist.sys.resource_quota_control_enable, true)";
    const std::string registers = "MakeAndRegisterAbility(1913)";
    const std::string readKind = "GetIntParameter(const.debuggable, 0, -2147483648, 2147483647)";
    auto calls = LoadTimeCalls();
    EXPECT_EQ(std::ranges::count(calls, readKind), 2) << "once for the dump and once for the histories";
    const auto start = std::ranges::find(calls, readSwitch);
    ASSERT_NE(start, calls.end());
    EXPECT_EQ(*(start + 1), registers);
    EXPECT_EQ(*(start + 2), readKind);
    EXPECT_EQ(service.GetSystemAbilityId(), 1913);
    EXPECT_TRUE(service.IsRunOnCreate());
    EXPECT_EQ(service.GetClassName(), "ResourceQuotaControlService");
    const auto singleton = DelayedSingleton<ResourceQuotaControlService>::GetInstance();
    EXPECT_EQ(singleton.get(), &service);
    EXPECT_EQ(singleton->StrongRefCount(), 1) << "one owner deletes it";
    EXPECT_TRUE(singleton->IsSerialInvoke());
    EXPECT_EQ(singleton->GetObjectDescriptor().size(), 61U);
}

TEST_F(LifecycleTest, StartsOnceAndAgainOnlyAfterAFailure) {
    EXPECT_THAT(Start(),
                ElementsAre("I " + kService + "start.", "E " + kService + "init res policy manager failed"));
    AddOneRule();
    platform.duringListen = [this] { service.OnStart(); };
    const std::vector<std::string> whole{"I " + kService + "start.", "AddSystemAbilityListener(1213)"};
    EXPECT_THAT(Start(), ElementsAre(whole[0], whole[1], whole[0], whole[1]))
        << "not running while it listens";
    EXPECT_THAT(Start(), ElementsAre("I " + kService + "start.",
                                     "I " + kService + "service is runnning, not repeatly start, return."));
    EXPECT_THAT(TraceOf([this] { service.OnStop(); }), IsEmpty());
}

TEST_F(LifecycleTest, TheKelvraManagersComingsSubscribePushAndPublishInFull) {
    AddOneRule();
    Start();
    platform.setQuotaResult = -1;
    const std::vector<std::string> whole{
        kAdded, "SubscribeKelvraTask()", kSubscribed, "SetProcessQuota(0, 1)", "Publish(1913)", kPublished};
    EXPECT_EQ(Add(1213), whole);
    EXPECT_EQ(platform.quotas.at(0).processName, "A");
    EXPECT_EQ(platform.publishedObject,
              sptr<IRemoteObject>(DelayedSingleton<ResourceQuotaControlService>::GetInstance().get()));
    EXPECT_THAT(Remove(1213), ElementsAre("I " + kService + "remove system ability systemAbilityId:1213",
                                          "I " + kImpl + "HandleKelvraDied called"));
    EXPECT_FALSE(platform.ReportAnomalies({})) << "the subscriber is gone";
    platform.publishResult = false;
    auto unpublished = whole;
    unpublished.back() = "E " + kService + "publish resource quota control service failed!";
    EXPECT_EQ(Add(1213), unpublished);
}

TEST_F(LifecycleTest, ARefusedSubscriptionIsTriedAgainOnlyAfterTheManagerWent) {
    AddOneRule();
    Start();
    platform.subscribeResult = 5;
    EXPECT_THAT(Add(1213),
                ElementsAre(kAdded, "SubscribeKelvraTask()", "E " + kImpl + "SubscribeKelvraTask failed",
                            "E " + kService + "InitKelvraTaskObserver failed"));
    platform.subscribeResult = 0;
    EXPECT_THAT(Add(1213), ElementsAre(kAdded, "I " + kImpl + "kelvraTaskObserver_ has been inited!",
                                       "SetProcessQuota(0, 1)", "Publish(1913)", kPublished));
    Remove(1213);
    EXPECT_THAT(Add(1213), Contains("SubscribeKelvraTask()"));
}

TEST_F(LifecycleTest, WithoutAPolicyNothingIsPublished) {
    EXPECT_THAT(Add(1213), ElementsAre(kAdded, "SubscribeKelvraTask()", kSubscribed,
                                       "E " + kService + "IsConfigInit is false",
                                       "E " + kService + "SetConfigToKelvraManager failed"));
}

TEST_F(LifecycleTest, AnEmptyListOfQuotasIsPushedToo) {
    AddLayer(Quotas(""));
    Start();
    EXPECT_THAT(Add(1213), Contains("SetProcessQuota(0, 0)"));
}

TEST_F(LifecycleTest, OtherAbilitiesAreOnlyLogged) {
    EXPECT_THAT(Add(1212), ElementsAre("I " + kService + "Add system ability systemAbilityId:1212",
                                       "I " + kService + "Unhandled sysabilityId:1212"));
    EXPECT_THAT(Remove(1214), ElementsAre("I " + kService + "remove system ability systemAbilityId:1214",
                                          "I " + kService + "Unhandled sysabilityId:1214"));
}

TEST_F(LifecycleTest, TheManagerMayReportAndLeaveWhileItIsSubscribedTo) {
    bool wasReported = false;
    platform.duringSubscribe = [&] {
        wasReported = platform.ReportAnomalies({{}});
        DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleKelvraDied();
    };
    Add(1213);
    EXPECT_TRUE(wasReported);
    EXPECT_EQ(platform.PendingTasks().size(), 1U);
    EXPECT_FALSE(platform.ReportAnomalies({{}}));
}

TEST_F(LifecycleTest, ALineBearsTheFunctionThatItsReadersKnow) {
    const std::pair<std::string, std::string> functions[] = {
        {"start.", "OnStart"},
        {"Merge quota config failed!", "Init"},
        {"init res policy manager failed", "OnStart"},
        {"Add system ability", "OnAddSystemAbility"},
        {"publish resource quota control service successfully!", "OnAddSystemAbility"},
        {"abnormal info", "HandleAbnormalInfos"},
        {"resource value", "HandleAbnormalProcessEnhance"},
        {"process enter suppress", "ReportSuppressProcessInfo"},
        {"pid:12 has special continuous task", "HandleAbnormalProcess"},
        {"Process  called GetIoWriteBytes", "GetIoWriteBytes"},
        {"pid vector size is invalid.", "HandleGetIoWriteBytes"},
        {"illegal access", "GetExtensionRunningTime"},
        {"CheckPermission failed", "AllowDump"},
        {"process exit suppress", "EndSuppression"}};
    AddLayer(Quotas(Entry("A", "A", Rule("cpu", 1))));
    service.OnStart();
    platform.configDirectories.reset();
    AddOneRule();
    service.OnStart();
    service.OnAddSystemAbility(1213, "");
    platform.files["/proc/12/cmdline"] = "foo";
    platform.continuousTasks = {std::make_shared<ContinuousTaskCallbackInfo>(34, 12, std::vector{1U})};
    platform.ReportAnomalies({Report("cpu", "kill", {}, 0, 13), Report("cpu_ext", ""), Report("io", "kill")});
    platform.RunTasks();
    Ask(1, {});
    Ask(1, {1});
    Ask(2, {});
    service.Dump(1, {});
    platform.Advance(std::chrono::seconds(6));
    for (const auto& [start, function] : functions) {
        EXPECT_THAT(platform.Lines(),
                    Contains(testing::AllOf(testing::Field(&Fake::LogLine::text, testing::StartsWith(start)),
                                            testing::Field(&Fake::LogLine::function, function))));
    }
}

class DisabledServiceTest : public LifecycleTest {};

TEST_F(DisabledServiceTest, IsRegisteredButRefusesToStart) {
    AddOneRule();
    EXPECT_THAT(LoadTimeCalls(), Contains("MakeAndRegisterAbility(1913)"));
    EXPECT_THAT(Start(), ElementsAre("I " + kService + "ResourceQuotaControl is not enabled."));
    EXPECT_THAT(platform.Calls(), IsEmpty());
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
