#include "resource_quota_control_impl.h"
#include "resource_quota_control_service.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

class LifecycleTest : public ServiceTest {
  protected:
    // What an operation of the service leads to, but for the reading of the policy.
    std::vector<std::string> Run(const std::function<void()>& operation) {
        return TraceOf(operation, {"res_policy_manager", "json_utils", "CfgDirList"});
    }
    std::vector<std::string> Start() {
        return Run([this] { service.OnStart(); });
    }
    std::vector<std::string> Add(int32_t id) {
        return Run([this, id] { service.OnAddSystemAbility(id, ""); });
    }
    std::vector<std::string> Remove(int32_t id) {
        return Run([this, id] { service.OnRemoveSystemAbility(id, ""); });
    }
    void AddOneRule() { AddLayer(Quotas(Entry("A", "", Rule("cpu", 1)))); }
};

const std::string kAdded = "I Add system ability systemAbilityId:1213";
const std::string kSubscribed = "I InitKelvraTaskObserver successfully";
const std::string kPublished = "I publish resource quota control service successfully!";

TEST_F(LifecycleTest, LoadingReadsTheSwitchRegistersAndReadsTheBuildKindInThisOrder) {
    const std::string readKind = "GetIntParameter(const.debuggable, 0, -2147483648, 2147483647)";
    const std::vector<std::string> order{"GetBoolParameter(persist.sys.resource_quota_control_enable, true)",
                                         "MakeAndRegisterAbility(1913)", readKind};
    const auto& calls = LoadTimeCalls();
    EXPECT_EQ(std::ranges::count(calls, readKind), 2) << "once for the dump and once for the histories";
    EXPECT_NE(std::search(calls.begin(), calls.end(), order.begin(), order.end()), calls.end());
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
    EXPECT_THAT(Start(), ElementsAre("I start.", "E init res policy manager failed"));
    AddOneRule();
    platform.duringListen = [this] { service.OnStart(); };
    const std::vector<std::string> whole{"I start.", "AddSystemAbilityListener(1213)"};
    EXPECT_THAT(Start(), ElementsAre(whole[0], whole[1], whole[0], whole[1]))
        << "not running while it listens";
    EXPECT_THAT(Start(), ElementsAre("I start.", "I service is runnning, not repeatly start, return."));
    EXPECT_THAT(Run([this] { service.OnStop(); }), IsEmpty());
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
    EXPECT_THAT(Remove(1213),
                ElementsAre("I remove system ability systemAbilityId:1213", "I HandleKelvraDied called"));
    EXPECT_FALSE(platform.ReportAnomalies({})) << "the subscriber is gone";
    platform.publishResult = false;
    auto unpublished = whole;
    unpublished.back() = "E publish resource quota control service failed!";
    EXPECT_EQ(Add(1213), unpublished);
}

TEST_F(LifecycleTest, ARefusedSubscriptionIsTriedAgainOnlyAfterTheManagerWent) {
    AddOneRule();
    Start();
    platform.subscribeResult = 5;
    EXPECT_THAT(Add(1213), ElementsAre(kAdded, "SubscribeKelvraTask()", "E SubscribeKelvraTask failed",
                                       "E InitKelvraTaskObserver failed"));
    platform.subscribeResult = 0;
    EXPECT_THAT(Add(1213), ElementsAre(kAdded, "I kelvraTaskObserver_ has been inited!",
                                       "SetProcessQuota(0, 1)", "Publish(1913)", kPublished));
    Remove(1213);
    EXPECT_THAT(Add(1213), Contains("SubscribeKelvraTask()"));
}

TEST_F(LifecycleTest, WithoutAPolicyNothingIsPublishedAndAnEmptyListOfQuotasIsPushed) {
    EXPECT_THAT(Add(1213), ElementsAre(kAdded, "SubscribeKelvraTask()", kSubscribed,
                                       "E IsConfigInit is false", "E SetConfigToKelvraManager failed"));
    AddLayer(Quotas(""));
    Start();
    EXPECT_THAT(Add(1213), Contains("SetProcessQuota(0, 0)"));
}

TEST_F(LifecycleTest, OtherAbilitiesAreOnlyLogged) {
    EXPECT_THAT(Add(1212),
                ElementsAre("I Add system ability systemAbilityId:1212", "I Unhandled sysabilityId:1212"));
    EXPECT_THAT(Remove(1214),
                ElementsAre("I remove system ability systemAbilityId:1214", "I Unhandled sysabilityId:1214"));
}

TEST_F(LifecycleTest, TheManagerMayReportAndLeaveWhileItIsSubscribedTo) {
    bool wasReported = false;
    platform.duringSubscribe = [&] {
        wasReported = platform.ReportAnomalies({{}});
        DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleKelvraDied();
    };
    Add(1213);
    EXPECT_TRUE(wasReported);
    EXPECT_EQ(platform.PendingTasks(), 1U);
    EXPECT_FALSE(platform.ReportAnomalies({{}}));
}

TEST_F(LifecycleTest, ALineBearsTheFileAndTheFunctionThatItsReadersKnow) {
    const std::pair<std::string, std::string> lines[] = {
        {"I start.", "resource_quota_control_service(OnStart)"},
        {"E Merge quota config failed!", "res_policy_manager(Init)"},
        {"E init res policy manager failed", "resource_quota_control_service(OnStart)"},
        {"I Add system ability", "resource_quota_control_service(OnAddSystemAbility)"},
        {"I publish resource quota control service successfully!",
         "resource_quota_control_service(OnAddSystemAbility)"},
        {"I abnormal info", "resource_quota_control_impl(HandleAbnormalInfos)"},
        {"I resource value", "resource_quota_control_impl(HandleAbnormalProcessEnhance)"},
        {"I process enter suppress", "resource_quota_control_impl(ReportSuppressProcessInfo)"},
        {"I pid:12 has special continuous task", "resource_quota_control_impl(HandleAbnormalProcess)"},
        {"I Process  called GetIoWriteBytes", "resource_quota_control_service(GetIoWriteBytes)"},
        {"E pid vector size is invalid.", "resource_quota_control_stub(HandleGetIoWriteBytes)"},
        {"E illegal access", "resource_quota_control_service(GetExtensionRunningTime)"},
        {"E CheckPermission failed", "resource_quota_control_service(AllowDump)"},
        {"I process exit suppress", "resource_quota_control_impl(EndSuppression)"},
        {"D OnReportAbnormalProcess called", "kelvra_task_observer(OnReportAbnormalProcess)"},
        {"I realPath", "json_utils(ReadFileToString)"}};
    AddLayer(Quotas(Entry("A", "A", Rule("cpu", 1))));
    service.OnStart();
    platform.configDirectories.clear();
    AddOneRule();
    service.OnStart();
    service.OnAddSystemAbility(1213, "");
    platform.callingToken = platform.firstToken = 0;
    platform.continuousTasks = {std::make_shared<ContinuousTaskCallbackInfo>(34, 12, std::vector{1U})};
    platform.ReportAnomalies({Report("cpu", "kill", {}, 0, 13), Report("cpu_ext", ""), Report("io", "kill")});
    platform.RunTasks();
    Ask(1, {});
    Ask(1, {1});
    Ask(2, {});
    service.Dump(1, {});
    platform.Advance(std::chrono::seconds(6));
    for (const auto& [start, source] : lines) {
        EXPECT_THAT(platform.Entries(),
                    Contains(testing::AllOf(testing::Field(&Fake::Entry::text, testing::StartsWith(start)),
                                            testing::Field(&Fake::Entry::source, source))));
    }
}

class DisabledServiceTest : public LifecycleTest {};

TEST_F(DisabledServiceTest, IsRegisteredButRefusesToStart) {
    AddOneRule();
    EXPECT_THAT(LoadTimeCalls(), Contains("MakeAndRegisterAbility(1913)"));
    EXPECT_THAT(Start(), ElementsAre("I ResourceQuotaControl is not enabled."));
    EXPECT_THAT(platform.Calls(), IsEmpty());
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
