#include <fcntl.h>

#include "fixture.h"
#include "resource_quota_control_errors.h"

// Whatever comes in gets its defined error, and the service goes on as if nothing had happened.
namespace KITE::Integration {

namespace {

using namespace ResourceQuotaCtl;

constexpr uint32_t kWrittenBytes = IResourceQuotaControl::GET_IO_WRITE_BYTES;
constexpr uint32_t kRunningTimes = IResourceQuotaControl::GET_EXTENSION_RUNNING_TIME;

MessageParcel PidRequest(const std::vector<int32_t>& pids) {
    MessageParcel request = QuotaRequest();
    request.WriteInt32Vector(pids);
    return request;
}

}  // namespace

using BadFileTest = SystemTest;

TEST_F(BadFileTest, ABrokenPolicyKeepsTheServiceUnpublishedAndTheHostRunning) {
    SetPolicy({"{"});
    FakeManager manager(Address());
    LogFile& log = StartQuotaHost().log;
    EXPECT_TRUE(log.Await("transit to json failed"));
    EXPECT_TRUE(log.Await("init res policy manager failed"));
    EXPECT_FALSE(manager.AwaitSubscription(milliseconds(300)));
    EXPECT_EQ(SD_BUS_ERROR_SERVICE_UNKNOWN, Connect(kTrustedUid).AskRunningTimes().error);
    EXPECT_EQ(0, StopQuotaHost());
}

TEST_F(BadFileTest, AHostDoesNotStartWithTokensThatCannotBeTrusted) {
    const std::pair<const char*, mode_t> tables[] = {
        {R"({"tokens": [{"uid": 0, "process_name": "svcdb"}]})", 0664}, {"{", 0644}};
    for (const auto& [text, mode] : tables) {
        SetTokens(text, mode);
        EXPECT_EQ(1, StartQuotaHost().process.AwaitExit()) << text;
        EXPECT_TRUE(QuotaHost().log.Await("the host does not start")) << text;
    }
}

// Remembers what the service's process holds, and sees to it that it holds no more in the end.
class BadClientTest : public SystemTest {
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
        EXPECT_EQ(0, Manager().Report({Anomaly(StartTarget("first", {"idle"}), "cpu", "warning")}));
        EXPECT_TRUE(QuotaHost().log.Await("action is warning"));
        ExpectPromptAnswer();
        EXPECT_EQ(
            ERR_OK,
            Connect(kTrustedUid).Dump({"-h"}, Linux::UniqueFd(open("/dev/null", O_WRONLY)).Get()).status);
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

TEST_F(BadClientTest, AReportedProcessThatHasEndedIsForgotten) {
    for (int i = 0; i < 20; ++i) {
        const Process target({.program = KITE_TARGET, .arguments = {"target", "idle"}});
        EXPECT_EQ(0, Manager().Report({Anomaly(target, "cpu", "warning")}));
    }
}

TEST_F(BadClientTest, AClientMayGoAwayAndSendWhatIsTooLargeOrOfAnotherShape) {
    for (int i = 0; i < 20; ++i) {
        Connect(kTrustedUid).Send(kWrittenBytes, PidRequest({getpid()}));
    }
    const MessageParcel huge = PidRequest(std::vector<int32_t>(size_t{9} << 20, 1));
    EXPECT_NE("", Connect(kTrustedUid).Transact(kQuotaName, kQuotaPath, kWrittenBytes, huge).error)
        << "it costs the connection";
    BusClient client = Connect(kTrustedUid);
    sd_bus_error error{};
    EXPECT_LT(sd_bus_call_method(client.Bus(), kQuotaName, kQuotaPath, "kite.Ability", "Transact", &error,
                                 nullptr, "s", "text"),
              0);
    EXPECT_STREQ(SD_BUS_ERROR_INVALID_ARGS, error.name);
    sd_bus_error_free(&error);
}

TEST_F(BadClientTest, ADescriptorThatTakesNothingFailsTheDumpAndHoldsUpNobodyElse) {
    BusClient client = Connect(kTrustedUid);
    Pipe closed;
    closed.readEnd = Linux::UniqueFd();
    EXPECT_EQ(ERR_RQC_DUMP_FAILED, client.Dump({"-h"}, closed.writeEnd.Get()).status);
    ExpectPromptAnswer();
    Pipe full;
    full.Fill();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ERR_RQC_DUMP_FAILED, client.Dump({"-h"}, full.writeEnd.Get()).status);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    EXPECT_TRUE(QuotaHost().log.Await("save to fd failed."));
    ExpectPromptAnswer();
}

// To the bus it is the same as a stopped process: the connection is open and nobody reads it.
TEST_F(BadClientTest, AClientMayLeaveItsRepliesUnread) {
    constexpr int kRequests = 200;
    BusClient silent = Connect(kTrustedUid);
    for (int i = 0; i < kRequests; ++i) {
        silent.Send(kRunningTimes, QuotaRequest());
    }
    for (int i = 0; i < kRequests; ++i) {
        EXPECT_TRUE(QuotaHost().log.Await("called GetExtensionRunningTime"));
    }
    ExpectPromptAnswer();
}

}  // namespace KITE::Integration
