#include "resource_quota_control_execute_helper.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using ActionTest = ServiceTest;

TEST_F(ActionTest, AKillSaysWhyAndIsRecordedWhenItWasAcceptedForAKnownReason) {
    using Helper = ResourceQuotaControlExecuteHelper;
    const std::pair<std::string, std::string> reasons[] = {{"io", "Kill Reason:IO Manage Control"},
                                                           {"cpu", "Kill Reason:CPU Highload"},
                                                           {"cpu_ext", "Kill Reason:CPU_EXT Highload"},
                                                           {"mem", "Kill Reason:App Memory Deterioration"}};
    platform.eventResult = 4;
    for (const auto& [resType, reason] : reasons) {
        platform.ClearTrace();
        EXPECT_EQ(Helper::KillProcessByPid(1, resType, "foo"), 0);
        EXPECT_EQ(platform.Trace(), KillTrace("1", resType, reason, "4"));
    }
    for (const char* resType : {"IO", "cpu_extra", ""}) {
        platform.ClearTrace();
        EXPECT_EQ(Helper::KillProcessByPid(1, resType, "foo"), 0);
        EXPECT_THAT(platform.Calls(), ElementsAre("KillProcess({pid=1, processName=foo})"));
    }
    platform.killResult = 13;
    platform.ClearTrace();
    EXPECT_EQ(Helper::KillProcessByPid(1, "cpu", "foo"), 13);
    EXPECT_EQ(platform.Trace().size(), 2U);
    platform.ClearTrace();
    EXPECT_EQ(Helper::KillProcessByPid(0, "cpu", "foo"), -1);
    EXPECT_EQ(Helper::KillProcessByPid(-7, "cpu", "foo"), -1);
    EXPECT_THAT(platform.Trace(), IsEmpty());
    platform.freezeResult = 6;
    EXPECT_EQ(Helper::FreezeOneNativeProcess(0, 2, "foo"), 6);
    EXPECT_THAT(platform.Trace(), ElementsAre("OperateOneNativeProcess(0, 2, foo, -1, -1, true)",
                                              "I freeze "
                                              "process, pid is 0, uid is "
                                              "2, process name is foo result is 6"));
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
