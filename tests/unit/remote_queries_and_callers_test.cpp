#include "res_policy_manager.h"
#include "service_fixture.h"

namespace KITE::ResourceQuotaCtl {

namespace {

class RemoteTest : public ServiceTest {
  protected:
    RemoteTest() {
        platform.nativeProcesses = {
            {7, "svcdb"}, {8, "faultd"}, {9, "resource_schedule_service"}, {10, "svcd"}, {11, "Svcdb"}};
    }

    static MessageParcel Request(std::u16string_view token = IResourceQuotaControl::GetDescriptor()) {
        MessageParcel request;
        request.WriteInterfaceToken(token);
        return request;
    }
    static MessageParcel PidRequest(size_t count) {
        auto request = Request();
        request.WriteInt32Vector(std::vector<int32_t>(count, getpid()));
        return request;
    }
    int32_t Send(uint32_t code, MessageParcel request) {
        reply = {};
        MessageOption option;
        platform.ClearTrace();
        // As the transport does: through the remote object alone.
        return dynamic_cast<IRemoteObject*>(&service)->SendRequest(code, request, reply, option);
    }
    void LoadRunningTimes(int count) {
        std::string entries;
        for (int i = 0; i < count; ++i) {
            entries += (i == 0 ? "" : ",") +
                       Entry("ext_" + std::to_string(i), "", "'running_time':" + std::to_string(i + 1));
        }
        AddLayer(Quotas(entries));
        ASSERT_TRUE(DelayedSingleton<ResPolicyManager>::GetInstance()->Init());
    }

    MessageParcel reply;
};

TEST_F(RemoteTest, AnotherInterfacesTokenIsRefusedInSilence) {
    std::u16string token = IResourceQuotaControl::GetDescriptor();
    for (const auto& wrong :
         {token.substr(0, 60), token + u"l", u"k" + token.substr(1),
          std::u16string(u"KITE.ResourceSchedule.EfficiencyManager.ResourceQuotaControl")}) {
        EXPECT_EQ(Send(1, Request(wrong)), -1);
        EXPECT_EQ(reply.ReadableBytes(), 0U);
    }
    EXPECT_EQ(Send(2, MessageParcel()), -1);
    EXPECT_THAT(platform.Trace(), IsEmpty());
    for (const uint32_t code : {0U, 3U}) {
        EXPECT_EQ(Send(code, Request()), ERR_UNKNOWN_CODE);
        EXPECT_EQ(reply.ReadableBytes(), 0U);
    }
}

TEST_F(RemoteTest, CountsTheBytesOfUpTo2048PidsAndRefusesOtherLists) {
    EXPECT_EQ(Send(1, PidRequest(2048)), 0);
    EXPECT_THAT(platform.Trace(),
                ElementsAre("GetNativeTokenInfo(7)", "I Process svcdb called GetIoWriteBytes",
                            "I processPids.size() 2048", "I writeBytes.size() 2048"));
    std::vector<uint64_t> bytes;
    ASSERT_TRUE(reply.ReadUInt64Vector(&bytes));
    EXPECT_EQ(bytes.size(), 2048U);
    EXPECT_EQ(reply.ReadableBytes(), 0U);
    auto lyingCount = Request();
    lyingCount.WriteUint32(0x40000001);
    lyingCount.WriteInt32(1);
    const std::pair<MessageParcel, const char*> refused[] = {
        {PidRequest(0), "E pid vector size is invalid."},
        {PidRequest(2049), "E pid vector size is invalid."},
        {Request(), "E Failed to read processPids"},
        {lyingCount, "E Failed to read processPids"}};
    for (const auto& [request, line] : refused) {
        EXPECT_EQ(Send(1, request), 0);
        EXPECT_EQ(reply.ReadableBytes(), 0U);
        EXPECT_THAT(platform.Trace(), ElementsAre(line));
    }
}

TEST_F(RemoteTest, CallersWithinTheProcessAreBoundedAsWell) {
    auto* local = dynamic_cast<IResourceQuotaControl*>(&service);
    std::vector<uint64_t> bytes;
    EXPECT_EQ(local->GetIoWriteBytes(std::vector<int32_t>(2049, 1), bytes), 0x2610008);
    EXPECT_EQ(local->GetIoWriteBytes({}, bytes), ERR_RQC_INVALID_PARAM);
    EXPECT_THAT(platform.Log(), Contains("E pid vector size is invalid.").Times(2));
    EXPECT_THAT(bytes, IsEmpty());
    platform.callingToken = 0;
    std::map<std::string, int32_t> times{{"kept", 1}};
    EXPECT_EQ(local->GetExtensionRunningTime(times), 0x261000D);
    EXPECT_EQ(times.size(), 1U);
    EXPECT_EQ(local->GetIoWriteBytes({}, bytes), 0x261000D) << "the caller is checked first";
    platform.callingToken = kCaller;
    EXPECT_EQ(local->GetExtensionRunningTime(times), 0);
    EXPECT_EQ(times.size(), 0U) << "replaced";
}

TEST_F(RemoteTest, OnlyTheThreeTrustedProcessesAreAnswered) {
    LoadRunningTimes(1);
    for (const uint32_t token : {7U, 8U, 9U, 10U, 11U, 0U}) {
        const bool isTrusted = token >= 7 && token <= 9;
        SCOPED_TRACE(token);
        platform.callingToken = token;
        EXPECT_EQ(Send(1, PidRequest(1)), 0);
        std::vector<uint64_t> bytes;
        ASSERT_TRUE(reply.ReadUInt64Vector(&bytes));
        EXPECT_EQ(bytes.size(), isTrusted ? 1U : 0U);
        EXPECT_EQ(Send(2, Request()), 0);
        int32_t result = -1;
        uint32_t count = 9;
        ASSERT_TRUE(reply.ReadInt32(result) && reply.ReadUint32(count));
        EXPECT_EQ(result, isTrusted ? 0 : 0x261000D);
        EXPECT_EQ(count, isTrusted ? 1U : 0U);
    }
    EXPECT_THAT(platform.Trace(),
                ElementsAre("GetNativeTokenInfo(0)", "I Process  called GetExtensionRunningTime",
                            "E illegal access to this interface."));
    Send(1, PidRequest(1));
    EXPECT_THAT(platform.Log(),
                ElementsAre("I Process  called GetIoWriteBytes", "E illegal access to this interface."));
}

class RunningTimesTest : public RemoteTest, public testing::WithParamInterface<int> {};

TEST_P(RunningTimesTest, AReplyHoldsUpTo500InOrderOfNamesAndNoMore) {
    LoadRunningTimes(GetParam());
    EXPECT_EQ(Send(2, Request()), 0);
    int32_t result = -1;
    uint32_t count = 0;
    ASSERT_TRUE(reply.ReadInt32(result));
    EXPECT_EQ(reply.ReadUint32(count), GetParam() == 500);
    EXPECT_EQ(std::pair(result, count), GetParam() == 500 ? std::pair(0, 500U) : std::pair(0x2610011, 0U));
    std::vector<std::string> names(count);
    for (std::string& name : names) {
        int32_t runningTime = 0;
        ASSERT_TRUE(reply.ReadString(name) && reply.ReadInt32(runningTime));
        EXPECT_EQ(name, "ext_" + std::to_string(runningTime - 1));
    }
    EXPECT_TRUE(std::ranges::is_sorted(names));
    EXPECT_EQ(reply.ReadableBytes(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Remote, RunningTimesTest, testing::Values(500, 501));

}  // namespace

}  // namespace KITE::ResourceQuotaCtl
