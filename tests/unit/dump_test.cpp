#include "res_policy_manager.h"
#include "resource_quota_control_dumper.h"
#include "resource_quota_control_impl.h"
#include "service_fixture.h"
#include "singleton.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr uint32_t kOperator = 3;
constexpr int32_t kRefused = 0x261000C;
const std::string kHelp =
    "Resource quota control dump options:\n  description of the cmd option:\n"
    "    -h:                        show this help.\n  DumpConfig\n  DumpRunningTime\n  "
    "DumpReportedAbnormalInfo\n"
    "  DumpHandledAbnormalInfo\n  DumpHandledAbnormalEnhanceInfo\n  DumpGetIoWritebytesAbility\n";

class DumpTest : public ServiceTest {
  protected:
    DumpTest() {
        platform.permissions = {{kOperator, "kite.permission.DUMP"}};
        platform.firstToken = kOperator;
    }

    int32_t Dump(const std::vector<std::u16string>& args) {
        platform.ClearTrace();
        platform.saved = "nothing saved";
        return platform.registeredAbility->Dump(42, args);
    }
    std::string DumpText(const std::vector<std::u16string>& args) {
        EXPECT_EQ(Dump(args), 0);
        return platform.saved;
    }
    static void Handle(int pid, const std::string& action, const std::string& resType) {
        Kelvra::ProcessAnomalyInfo info;
        info.pid = pid;
        info.uid = 20010;
        info.processName = "foo";
        info.processType = -1000;
        info.action = action;
        info.resType = resType;
        info.duration = 60;
        info.resource = 95;
        info.id = 7;
        info.conditions = {1, 3};
        DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleAbnormalInfos({info});
    }
};

TEST_F(DumpTest, ShowsTheHelpForEverythingThatIsNoOption) {
    for (const std::vector<std::u16string>& args : std::vector<std::vector<std::u16string>>{
             {}, {u"-h"}, {u"dumpconfig"}, {u"DumpConfig "}, {u""}, {u"-h", u"DumpConfig"}}) {
        EXPECT_EQ(DumpText(args), kHelp);
    }
    EXPECT_THAT(platform.Trace(), ElementsAre("VerifyAccessToken(3, kite.permission.DUMP)",
                                              "SaveStringToFd(42, " + std::to_string(kHelp.size()) + ")"));
}

TEST_F(DumpTest, NeedsThePermissionOfTheFirstCaller) {
    platform.callingToken = kOperator;
    platform.firstToken = 4;
    EXPECT_EQ(Dump({u"-h"}), kRefused);
    EXPECT_THAT(platform.Trace(), ElementsAre("VerifyAccessToken(4, kite.permission.DUMP)",
                                              "E resource_quota_control_service: CheckPermission failed"));
    EXPECT_EQ(platform.Lines().at(0).function, "AllowDump");
    platform.firstToken = kOperator;
    platform.canSave = false;
    EXPECT_EQ(Dump({u"-h"}), kRefused);
    EXPECT_THAT(platform.Log(), ElementsAre("E resource_quota_control_service: save to fd failed."));
}

TEST_F(DumpTest, ListsTheConfigurationAndTheRunningTimes) {
    EXPECT_EQ(DumpText({u"DumpConfig"}), "");
    EXPECT_EQ(DumpText({u"DumpRunningTime"}), "");
    AddLayer(Quotas(Entry("foo", "",
                          "'running_time':300,'cpu':[{'condition':['foreground','background&audio'],'id':-3,"
                          "'resource_quota':100,'duration':60,'action':'kill'},{'condition':[],'id':3,"
                          "'resource_quota':5000000000,'duration':-1,'action':''}]") +
                    ',' + Entry("bar", "", "'running_time':2")));
    ASSERT_TRUE(DelayedSingleton<ResPolicyManager>::GetInstance()->Init());
    EXPECT_EQ(
        DumpText({u"DumpConfig", u"ignored"}),
        "process name is foo, resource is 100, duration is 60, id is -3, process type is 0, action is kill, "
        "resType is cpu, condition is  1 6\n"
        "process name is foo, resource is 5000000000, duration is -1, id is 3, process type is 0, action is "
        ", "
        "resType is cpu, condition is \n");
    EXPECT_EQ(DumpText({u"DumpRunningTime"}), "bar running time is 2\nfoo running time is 300\n");
}

TEST_F(DumpTest, KeepsTheLast100RecordsOfEachHistory) {
    platform.registeredAbility->OnAddSystemAbility(1213, "");
    platform.wallTimeMs = 1700000000000;
    for (int pid = 1; pid <= 101; ++pid) {
        Handle(pid, "kill", "cpu");
    }
    const std::string all = DumpText({u"DumpReportedAbnormalInfo"});
    EXPECT_EQ(std::ranges::count(all, '\n'), 100);
    EXPECT_TRUE(
        all.starts_with("pid_2 uid_20010 processname_foo processtype_4294966296 action_kill restype_cpu "
                        "duration_60 condition_1_3_ "
                        "id_7 resource_95 timestamp_1700000000000\npid_3 "))
        << all.substr(0, 200);
    EXPECT_NE(all.find("\npid_101 "), all.npos);
    EXPECT_EQ(DumpText({u"DumpReportedAbnormalInfo"}), all) << "dumping changes nothing";
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalInfo"}), "") << "an unverified process is not acted on";
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalEnhanceInfo"}), "");
}

TEST_F(DumpTest, ShowsWhatWasExecutedAndWhatWasEnhancedApart) {
    platform.registeredAbility->OnAddSystemAbility(1213, "");
    platform.files["/proc/5/cmdline"] = "foo";
    Kelvra::ProcessAnomalyInfo info;
    info.pid = 5;
    info.processName = "foo";
    info.action = "warning";
    info.resType = "mem";
    auto enhanced = info;
    enhanced.resType = "cpu_ext";
    DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleAbnormalInfos(
        {info, enhanced, enhanced, enhanced});
    const std::string text = "pid_5 uid_0 processname_foo processtype_0 action_warning restype_";
    const std::string stage = text + "cpu_ext duration_0 condition_ id_0 resource_0 timestamp_0\n";
    EXPECT_THAT(platform.Calls(), Contains(testing::StartsWith("KillProcess(")));
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalInfo"}),
              text + "mem duration_0 condition_ id_0 resource_0 timestamp_0\n")
        << "not the staged kill";
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalEnhanceInfo"}), stage + stage + stage);
    EXPECT_EQ(std::ranges::count(DumpText({u"DumpReportedAbnormalInfo"}), '\n'), 4);
    info.action = "no action";
    info.conditions = {0, 8, 0};
    DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleAbnormalInfos({info});
    EXPECT_EQ(std::ranges::count(DumpText({u"DumpHandledAbnormalInfo"}), '\n'), 3)
        << "once for each condition";
    platform.registeredAbility->OnRemoveSystemAbility(1213, "");
    DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleAbnormalInfos({info});
    EXPECT_EQ(std::ranges::count(DumpText({u"DumpReportedAbnormalInfo"}), '\n'), 6) << "recording goes on";
    std::string result = "replaced";
    ResourceQuotaControlDumper::Dump({"DumpConfig"}, result);
    EXPECT_EQ(result, "");
}

TEST_F(DumpTest, NothingIsRecordedBeforeTheManagerHasAcceptedASubscription) {
    platform.subscribeResult = 1;
    platform.registeredAbility->OnAddSystemAbility(1213, "");
    Handle(1, "kill", "cpu");
    EXPECT_EQ(DumpText({u"DumpReportedAbnormalInfo"}), "");
}

TEST_F(DumpTest, LogsTheBytesThatOneProcessHasWritten) {
    const std::string invalid =
        "E resource_quota_control_impl: input pid is invalid, please remember to enter the pid parameter.";
    for (const std::u16string word :
         {u"", u"0", u"abc", u"99999999999999999999", u"+-5", u"- 5", u"4294967301"}) {
        EXPECT_EQ(DumpText({u"DumpGetIoWritebytesAbility", word}), "");
        EXPECT_THAT(platform.Log(), ElementsAre(invalid));
    }
    EXPECT_EQ(DumpText({u"DumpGetIoWritebytesAbility"}), "");
    EXPECT_THAT(platform.Log(), ElementsAre(invalid));
    EXPECT_EQ(DumpText({u"DumpGetIoWritebytesAbility", u" \t-3 "}), "");
    EXPECT_THAT(
        platform.Log(),
        ElementsAre("E resource_quota_control_io_helper: file /proc/-3/io not found, can not get io data.",
                    "I resource_quota_control_io_helper: writeBytes.size() 1",
                    "I resource_quota_control_impl: receive data, pid:-3 writeBytes:18446744073709551615"));
    DumpText({u"DumpGetIoWritebytesAbility", u"\v\r\f+99999999abc", u"5"});
    EXPECT_THAT(platform.Log(), Contains("I resource_quota_control_impl: receive data, pid:99999999 "
                                         "writeBytes:18446744073709551615"));
}

class ReleaseDumpTest : public DumpTest {};

TEST_F(ReleaseDumpTest, IsRefusedInSilenceWhateverThePermission) {
    EXPECT_EQ(Dump({u"-h"}), kRefused);
    EXPECT_THAT(platform.Trace(), IsEmpty());
    EXPECT_EQ(platform.saved, "nothing saved");
}

TEST_F(ReleaseDumpTest, NothingIsRecorded) {
    platform.registeredAbility->OnAddSystemAbility(1213, "");
    platform.files["/proc/1/cmdline"] = "foo";
    Handle(1, "warning", "mem");
    Handle(1, "warning", "cpu_ext");
    std::string result;
    const auto impl = DelayedSingleton<ResourceQuotaControlImpl>::GetInstance();
    impl->DumpAbnormalInfo(result, true);
    impl->DumpAbnormalInfo(result, false);
    impl->DumpAbnormalEnhanceInfo(result);
    EXPECT_EQ(result, "");
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
