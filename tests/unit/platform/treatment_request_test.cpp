#include <limits>

#include "resource_schedule.h"
#include "suspend_manager.h"
#include "treatment_fixture.h"

namespace KITE::Linux {

using TreatmentRequestTest = TreatmentTest;

TEST_F(TreatmentRequestTest, TheClientsTakeAFreezeOfAnyLengthAndNoMalformedRequest) {
    const Program culprit({kName, "burn"});
    SuspendManagerClient& suspender = SuspendManagerClient::GetInstance();
    NativeProcessInfo request;
    EXPECT_EQ(suspender.OperateOneNativeProcess(request), EINVAL);
    request.pid = culprit.Pid();
    request.processName = kName;
    request.isFreeze = true;
    request.durationMs = std::numeric_limits<int64_t>::max();
    ASSERT_TRUE(Treatments::Instance().Remember(culprit.Pid(), culprit.StartTime(), kName));
    ASSERT_EQ(suspender.OperateOneNativeProcess(request), 0);
    EXPECT_TRUE(StandsStill(culprit));
    request.isFreeze = false;
    EXPECT_EQ(suspender.OperateOneNativeProcess(request), 0);
    EXPECT_TRUE(culprit.Runs());
    for (const char* pid : {"12x", "-1", "4294967298", ""}) {
        EXPECT_EQ(ResSchedClient::GetInstance().KillProcess({{"pid", pid}, {"processName", kName}}), EINVAL);
    }
    EXPECT_EQ(ResSchedClient::GetInstance().KillProcess({}), EINVAL);
    EXPECT_EQ(ResSchedClient::GetInstance().KillProcess({{"pid", "1"}}), EINVAL);
}

}  // namespace KITE::Linux
