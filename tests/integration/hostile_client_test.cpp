#include <fcntl.h>

#include "fixture.h"
#include "resource_quota_control_errors.h"

// Clients that go away, send what is too large or of another shape, leave replies unread, or have a dump
// written where nothing takes it.
namespace KITE::Integration {

using namespace ResourceQuotaCtl;

// The service answers in the end, and holds no more descriptors and threads than before.
class HostileClientTest : public SystemTest {
  protected:
    void SetUp() override {
        SystemTest::SetUp();
        std::vector<std::string> rules;
        rules.reserve(500);
        for (int i = 0; i < 500; ++i) {
            rules.push_back(Rule("extension_with_a_long_name_" + std::to_string(i), "cpu", 10, "kill", i));
        }
        SetPolicy(rules);
        StartWithFakeManager();
        Report({Anomaly(StartTarget("first", {"idle"}), "cpu", "warning")}, "action is warning");
        ExpectPromptAnswer();
        const Linux::UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(ERR_OK, Connect(kTrustedUid).Dump("-h", null.Get()).status);
        descriptors_ = Service().DescriptorCount();
        threads_ = Service().ThreadCount();
    }
    void TearDown() override {
        ExpectPromptAnswer();
        EXPECT_TRUE(Eventually([this] {
            return Service().DescriptorCount() <= descriptors_ && Service().ThreadCount() <= threads_;
        })) << Service().DescriptorCount()
            << " descriptors after " << descriptors_ << ", " << Service().ThreadCount() << " threads after "
            << threads_;
        SystemTest::TearDown();
    }
    Process& Service() { return QuotaHost().process; }

  private:
    size_t descriptors_ = 0;
    size_t threads_ = 0;
};

using SlowDumpReaderTest = HostileClientTest;

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

TEST_F(SlowDumpReaderTest, ADescriptorThatTakesNothingFailsTheDumpAndHoldsUpNoOtherCaller) {
    BusClient client = Connect(kTrustedUid);
    Pipe closed;
    closed.readEnd = Linux::UniqueFd();
    EXPECT_EQ(ERR_RQC_DUMP_FAILED, client.Dump("-h", closed.writeEnd.Get()).status);
    ExpectPromptAnswer();
    Pipe full;
    full.Fill();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ERR_RQC_DUMP_FAILED, client.Dump("-h", full.writeEnd.Get()).status);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    ExpectLogged({"save to fd failed."});
    ExpectPromptAnswer();
}

}  // namespace KITE::Integration
