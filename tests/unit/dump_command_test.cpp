#include "res_policy_manager.h"
#include "resource_quota_control_dumper.h"
#include "resource_quota_control_impl.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

constexpr int32_t kRefused = 0x261000C;
const std::string kHelp =
    "Resource quota control dump options:\n  description of the cmd option:\n"
    "    -h:                        show this help.\n  DumpConfig\n  DumpRunningTime\n  "
    "DumpReportedAbnormalInfo\n"
    "  DumpHandledAbnormalInfo\n  DumpHandledAbnormalEnhanceInfo\n  DumpGetIoWritebytesAbility\n";

class DumpTest : public ServiceTest {
  protected:
    int32_t Dump(const std::vector<std::u16string>& args) {
        platform.ClearTrace();
        platform.saved = "nothing saved";
        return service.Dump(42, args);
    }
    std::string DumpText(const std::vector<std::u16string>& args) {
        EXPECT_EQ(Dump(args), 0);
        return platform.saved;
    }
    int64_t CountOf(const std::u16string& dump) { return std::ranges::count(DumpText({dump}), '\n'); }
    static void Handle(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) {
        DelayedSingleton<ResourceQuotaControlImpl>::GetInstance()->HandleAbnormalInfos(infos);
    }
};

TEST_F(DumpTest, ShowsTheHelpForEverythingThatIsNoOption) {
    for (const std::vector<std::u16string>& args : std::vector<std::vector<std::u16string>>{
             {}, {u"-h"}, {u"dumpconfig"}, {u"DumpConfig "}, {u""}, {u"-h", u"DumpConfig"}}) {
        EXPECT_EQ(DumpText(args), kHelp);
    }
    EXPECT_THAT(platform.Trace(), ElementsAre("VerifyAccessToken(7, kite.permission.DUMP)",
                                              "SaveStringToFd(42, " + std::to_string(kHelp.size()) + ")"));
}

TEST_F(DumpTest, NeedsThePermissionOfTheFirstCaller) {
    platform.firstToken = 4;
    EXPECT_EQ(Dump({u"-h"}), kRefused);
    EXPECT_THAT(platform.Trace(),
                ElementsAre("VerifyAccessToken(4, kite.permission.DUMP)", "E CheckPermission failed"));
    platform.firstToken = kCaller;
    platform.canSave = false;
    EXPECT_EQ(Dump({u"-h"}), kRefused);
    EXPECT_THAT(platform.Log(), ElementsAre("E save to fd failed."));
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

TEST_F(DumpTest, KeepsTheLast100RecordsOfEachHistoryOnceASubscriptionWasAccepted) {
    platform.subscribeResult = 1;
    service.OnAddSystemAbility(1213, "");
    Handle({Report("cpu", "kill")});
    EXPECT_EQ(DumpText({u"DumpReportedAbnormalInfo"}), "");
    service.OnRemoveSystemAbility(1213, "");
    platform.subscribeResult = 0;
    service.OnAddSystemAbility(1213, "");
    platform.wallTimeMs = 1700000000000;
    for (int pid = 1; pid <= 101; ++pid) {
        Handle({Report("cpu", "kill", {1, 3}, -1000, pid, 20010)});
    }
    const std::string all = DumpText({u"DumpReportedAbnormalInfo"});
    EXPECT_EQ(std::ranges::count(all, '\n'), 100);
    EXPECT_THAT(
        all, testing::StartsWith(
                 "pid_2 uid_20010 processname_foo processtype_4294966296 action_kill "
                 "restype_cpu duration_60 condition_1_3_ id_7 resource_95 timestamp_1700000000000\npid_3 "));
    EXPECT_NE(all.find("\npid_101 "), all.npos);
    EXPECT_EQ(DumpText({u"DumpReportedAbnormalInfo"}), all) << "dumping changes nothing";
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalInfo"}), "") << "an unverified process is not acted on";
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalEnhanceInfo"}), "");
}

TEST_F(DumpTest, ShowsWhatWasExecutedAndWhatWasEnhancedApart) {
    service.OnAddSystemAbility(1213, "");
    const auto enhanced = Report("cpu_ext", "warning");
    Handle({Report("mem", "warning"), enhanced, enhanced, enhanced});
    const std::string start = "pid_12 uid_34 processname_foo processtype_0 action_warning restype_";
    const std::string end = " duration_60 condition_ id_7 resource_95 timestamp_0\n";
    const std::string stage = start + "cpu_ext" + end;
    EXPECT_THAT(platform.Calls(), Contains(testing::StartsWith("KillProcess(")));
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalInfo"}), start + "mem" + end) << "not the staged kill";
    EXPECT_EQ(DumpText({u"DumpHandledAbnormalEnhanceInfo"}), stage + stage + stage);
    EXPECT_EQ(CountOf(u"DumpReportedAbnormalInfo"), 4);
    const auto thrice = Report("mem", "no action", {0, 8, 0});
    Handle({thrice});
    EXPECT_EQ(CountOf(u"DumpHandledAbnormalInfo"), 3) << "once for each condition that holds";
    service.OnRemoveSystemAbility(1213, "");
    Handle({thrice});
    EXPECT_EQ(CountOf(u"DumpReportedAbnormalInfo"), 6) << "recording goes on";
    std::string result = "replaced";
    ResourceQuotaControlDumper::Dump({"DumpConfig"}, result);
    EXPECT_EQ(result, "");
}

TEST_F(DumpTest, LogsTheBytesThatOneProcessHasWritten) {
    const auto log = [&](std::vector<std::u16string> args) {
        args.insert(args.begin(), u"DumpGetIoWritebytesAbility");
        EXPECT_EQ(DumpText(args), "");
        return platform.Log();
    };
    for (const char16_t* word : {u"", u"0", u"abc", u"99999999999999999999", u"+-5", u"- 5", u"4294967301"}) {
        EXPECT_THAT(log({word}),
                    ElementsAre("E input pid is invalid, please remember to enter the pid parameter."));
    }
    EXPECT_EQ(log({}), log({u"0"}));
    EXPECT_THAT(log({u" \t-3 "}),
                ElementsAre("E file /proc/-3/io not found, can not get io data.", "I writeBytes.size() 1",
                            "I receive data, pid:-3 writeBytes:18446744073709551615"));
    EXPECT_THAT(log({u"\v\r\f+99999999abc", u"5"}),
                Contains("I receive data, pid:99999999 writeBytes:18446744073709551615"));
}

class ReleaseDumpTest : public DumpTest {};

TEST_F(ReleaseDumpTest, IsRefusedInSilenceWhateverThePermission) {
    EXPECT_EQ(Dump({u"-h"}), kRefused);
    EXPECT_THAT(platform.Trace(), IsEmpty());
    EXPECT_EQ(platform.saved, "nothing saved");
}

TEST_F(ReleaseDumpTest, NothingIsRecorded) {
    service.OnAddSystemAbility(1213, "");
    Handle({Report("mem", "warning"), Report("cpu_ext", "warning")});
    std::string result;
    const auto impl = DelayedSingleton<ResourceQuotaControlImpl>::GetInstance();
    impl->DumpAbnormalInfo(result, true);
    impl->DumpAbnormalInfo(result, false);
    impl->DumpAbnormalEnhanceInfo(result);
    EXPECT_EQ(result, "");
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
