#include <csignal>

#include "private_system.h"

// Start-up, queries and dumps.
namespace KITE::Integration {

namespace {

constexpr const char* kNobody = SD_BUS_ERROR_SERVICE_UNKNOWN;
constexpr const char* kPublished = "publish resource quota control service successfully!";

}  // namespace

using StartTest = PrivateSystem;

TEST_F(StartTest, TheServiceIsPublishedOnceTheManagerHasItsQuotas) {
    BusClient client = Connect(kTrustedUid);
    ASSERT_TRUE(StartQuotaHost().log.Await("start."));
    EXPECT_EQ(kNobody, client.AskRunningTimes().error);
    ASSERT_TRUE(StartKelvraHost().log.Await("reports go to"));
    EXPECT_TRUE(KelvraHost().log.Await("1 quotas replace all earlier ones"));
    EXPECT_TRUE(QuotaHost().log.Await("Add system ability systemAbilityId:1213"));
    EXPECT_TRUE(QuotaHost().log.Await("InitKelvraTaskObserver successfully"));
    EXPECT_TRUE(QuotaHost().log.Await(kPublished));
    EXPECT_EQ("", client.AskRunningTimes().error);
    ExpectPromptAnswer();
}

TEST_F(StartTest, AManagerThatDiesAndComesBackIsServedAnew) {
    SetPolicy({Rule("hog", "cpu", 10, "kill")});
    StartWhole();
    KelvraHost().process.Signal(SIGKILL);
    EXPECT_TRUE(QuotaHost().log.Await("remove system ability systemAbilityId:1213"));
    EXPECT_TRUE(QuotaHost().log.Await("HandleKelvraDied called"));
    ASSERT_TRUE(StartKelvraHost().log.Await("reports go to"));
    EXPECT_TRUE(KelvraHost().log.Await("1 quotas replace all earlier ones"));
    EXPECT_TRUE(QuotaHost().log.Await("InitKelvraTaskObserver successfully"));
    EXPECT_TRUE(QuotaHost().log.Await(kPublished));
    Process& hog = StartTarget("hog", {"burn"});
    EXPECT_EQ(SIGKILL, hog.AwaitEnd());
}

using QueryTest = PrivateSystem;

TEST_F(QueryTest, WrittenBytesComeInOrderWithAllOnesForWhoCannotBeRead) {
    StartWithFakeManager();
    constexpr int32_t kAbovePidMax = 1 << 22;
    BusClient client = Connect(kTrustedUid);
    const auto ownBytes = [] {
        const std::string io = ReadWholeFile("/proc/self/io");
        return std::stoull(io.substr(io.find("\nwrite_bytes:") + 13));
    };
    const uint64_t before = ownBytes();
    const std::vector<uint64_t> bytes = WrittenBytesOf(client.AskWrittenBytes({kAbovePidMax, getpid(), -1}));
    ASSERT_EQ(3U, bytes.size());
    EXPECT_EQ(UINT64_MAX, bytes[0]);
    EXPECT_GE(bytes[1], before);
    EXPECT_LE(bytes[1], ownBytes());
    EXPECT_EQ(UINT64_MAX, bytes[2]);
}

}  // namespace KITE::Integration
