#include "fixture.h"

// The service is published when a Kelvra manager is there, and serves the next one when that one has died.
namespace KITE::Integration {

using ManagerRestartTest = SystemTest;

TEST_F(ManagerRestartTest, TheServiceIsPublishedOnceAManagerHasItsQuotasAndServesTheNextOneAnew) {
    SetPolicy({Rule("hog", "cpu", 10, "kill")});
    BusClient client = Connect(kTrustedUid);
    ExpectIn(StartQuotaHost().log, {"start."});
    EXPECT_EQ(SD_BUS_ERROR_SERVICE_UNKNOWN, client.AskRunningTimes().error);
    for (const bool isFirst : {true, false}) {
        ExpectIn(StartKelvraHost().log, {"reports go to", "1 quotas replace all earlier ones"});
        ExpectLogged({"Add system ability systemAbilityId:1213", "InitKelvraTaskObserver successfully",
                      "publish resource quota control service successfully!"});
        ExpectPromptAnswer();
        if (isFirst) {
            KelvraHost().process.Signal(SIGKILL);
            ExpectLogged({"remove system ability systemAbilityId:1213", "HandleKelvraDied called"});
        }
    }
    EXPECT_EQ("", client.AskRunningTimes().error);
    EXPECT_EQ(SIGKILL, StartTarget("hog", {"burn"}).AwaitEnd());
}

}  // namespace KITE::Integration
