#include "fixture.h"

// Clients that go away, send what is too large or of another shape, or leave replies unread.
namespace KITE::Integration {

using namespace ResourceQuotaCtl;

using HostileClientTest = UnharmedServiceTest;

TEST_F(HostileClientTest, AReportedProcessThatHasEndedIsForgotten) {
    for (int i = 0; i < 20; ++i) {
        const Process target({.program = KITE_TARGET, .arguments = {"target", "idle"}});
        EXPECT_EQ(0, Manager().Report({Anomaly(target, "cpu", "warning")}));
    }
}

TEST_F(HostileClientTest, AClientMayGoAwayAndSendWhatIsTooLargeOrOfAnotherShape) {
    for (int i = 0; i < 20; ++i) {
        Connect(kTrustedUid).Send(IResourceQuotaControl::GET_IO_WRITE_BYTES, QuotaRequest({getpid()}));
    }
    EXPECT_NE("", Connect(kTrustedUid).AskWrittenBytes(std::vector<int32_t>(size_t{9} << 20, 1)).error)
        << "it costs the connection";
    BusClient client = Connect(kTrustedUid);
    sd_bus_error error{};
    EXPECT_LT(
        sd_bus_call_method(client.Bus(), kQuotaName.c_str(), kQuotaPath.c_str(), Linux::kAbilityInterface,
                           Linux::kTransactMethod, &error, nullptr, "s", "text"),
        0);
    EXPECT_STREQ(SD_BUS_ERROR_INVALID_ARGS, error.name);
    sd_bus_error_free(&error);
}

// To the bus it is the same as a stopped process: the connection is open and nothing is read from it.
TEST_F(HostileClientTest, AClientMayLeaveItsRepliesUnread) {
    constexpr int kRequests = 200;
    BusClient silent = Connect(kTrustedUid);
    for (int i = 0; i < kRequests; ++i) {
        silent.Send(IResourceQuotaControl::GET_EXTENSION_RUNNING_TIME, QuotaRequest());
    }
    for (int i = 0; i < kRequests; ++i) {
        ExpectLogged({"called GetExtensionRunningTime"});
    }
    ExpectPromptAnswer();
}

}  // namespace KITE::Integration
