#include "fixture.h"

// Processes that the device state exempts from treatment.
namespace KITE::Integration {

using ExemptProcessTest = SystemTest;

TEST_F(ExemptProcessTest, ADataTransferOrTheForegroundExemptsUntilTheStateChanges) {
    StartWithFakeManager();
    Process& transfer = StartTarget("transfer", {"idle"});
    Process& application = StartTarget("application", {"burn"});
    const std::string before = application.Standing();
    const std::string pid = std::to_string(transfer.Pid());
    const auto setExempt = [&](bool isExempt) {
        SetDeviceState(R"({"continuous_tasks": [{"uid": 20001, "pid": )" + pid + R"(, "types": [)" +
                       (isExempt ? "1" : "2") + R"(]}], "applications": [{"uid": 20001, "processes": [)" +
                       std::to_string(application.Pid()) + R"(], "foreground": )" +
                       (isExempt ? "true}]}" : "false}]}"));
    };
    const std::vector batch{Anomaly(transfer, "io", "kill"), Anomaly(application, "cpu_ext", "kill")};
    setExempt(true);
    Report(batch, "pid:" + pid + " has special continuous task, it can be exempted");
    ExpectLogged({"cancel suppress, 20001 is in foreground or has window visible"});
    EXPECT_FALSE(transfer.HasEnded());
    EXPECT_EQ(before, application.Standing());
    setExempt(false);
    Report(batch, kSuppressed);
    EXPECT_EQ(SIGKILL, transfer.AwaitEnd());
    EXPECT_NE(before, application.Standing());
}

}  // namespace KITE::Integration
