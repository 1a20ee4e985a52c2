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
    const auto kill = [&](int32_t pid, const std::string& resType, int32_t result) {
        return TraceOf([&] { EXPECT_EQ(Helper::KillProcessByPid(pid, resType, "foo"), result); });
    };
    platform.eventResult = 4;
    for (const auto& [resType, reason] : reasons) {
        EXPECT_EQ(kill(1, resType, 0), KillTrace("1", resType, reason, "4"));
    }
    for (const char* resType : {"IO", "cpu_extra", ""}) {
        kill(1, resType, 0);
        EXPECT_THAT(platform.Calls(), ElementsAre("KillProcess({pid=1, processName=foo})"));
    }
    platform.killResult = 13;
    EXPECT_EQ(kill(1, "cpu", 13).size(), 2U);
    EXPECT_THAT(kill(0, "cpu", -1), IsEmpty());
    EXPECT_THAT(kill(-7, "cpu", -1), IsEmpty());
    platform.freezeResult = 6;
    EXPECT_THAT(TraceOf([] { EXPECT_EQ(Helper::FreezeOneNativeProcess(0, 2, "foo"), 6); }),
                ElementsAre("OperateOneNativeProcess(0, 2, foo, -1, -1, true)",
                            "I freeze process, pid is 0, uid is 2, process name is foo result is 6"));
}

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
