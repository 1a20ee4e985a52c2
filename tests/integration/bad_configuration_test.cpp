#include "fixture.h"

// A policy or tokens with which the service must not start.
namespace KITE::Integration {

using BadConfigurationTest = SystemTest;

TEST_F(BadConfigurationTest, ABrokenPolicyKeepsTheServiceUnpublishedAndTheHostRunning) {
    SetPolicy({"{"});
    FakeManager manager(Address());
    ExpectIn(StartQuotaHost().log, {"transit to json failed", "init res policy manager failed"});
    EXPECT_FALSE(manager.AwaitSubscription(milliseconds(300)));
    EXPECT_EQ(SD_BUS_ERROR_SERVICE_UNKNOWN, Connect(kTrustedUid).AskRunningTimes().error);
    EXPECT_EQ(0, StopQuotaHost());
}

TEST_F(BadConfigurationTest, AHostDoesNotStartWithTokensThatCannotBeTrusted) {
    const std::pair<const char*, mode_t> tables[] = {
        {R"({"tokens": [{"uid": 0, "process_name": "svcdb"}]})", 0664}, {"{", 0644}};
    for (const auto& [text, mode] : tables) {
        SetTokens(text, mode);
        EXPECT_EQ(1, StartQuotaHost().process.AwaitExit()) << text;
        ExpectLogged({"the host does not start"});
    }
}

}  // namespace KITE::Integration
