#include <limits>

#include "kelvra_manager/client/subscriber_stub.h"
#include "kelvra_manager/manager/reporter.h"
#include "kelvra_manager/protocol.h"
#include "platform_fixture.h"

namespace KITE::Linux::Sampling {
namespace {

using ::testing::ElementsAre;

TEST(Reporter, SendsBatchesOfBoundedSizeKnowsWhatIsOnItsWayAndDropsOnlyTheSubscriberThatIsDead) {
    const auto reporter = std::make_shared<Reporter>();
    std::vector<std::function<void(int32_t)>> answers;
    std::vector<size_t> sizes;
    const Reporter::Deliver deliver = [&](const MessageParcel& batch, std::function<void(int32_t)> answered) {
        MessageParcel copy(batch);
        const auto infos = KelvraProtocol::ReadRecordList<Kelvra::ProcessAnomalyInfo>(copy);
        sizes.push_back(infos ? infos->size() : 0);
        answers.push_back(std::move(answered));
    };
    reporter->SetSubscriber(deliver);
    std::vector<Report> reports(1001);
    for (size_t i = 0; i < reports.size(); ++i) {
        reports[i].pid = static_cast<pid_t>(i);
    }
    reporter->Send(reports);
    EXPECT_THAT(sizes, ElementsAre(1000, 1));
    answers[0](ERR_TIMED_OUT);
    EXPECT_FALSE(reporter->IsOnTheWay(999, 0, ""));
    EXPECT_TRUE(reporter->IsOnTheWay(1000, 0, ""));
    EXPECT_TRUE(reporter->HasSubscriber());
    reporter->SetSubscriber(deliver);
    answers[1](ERR_DEAD_OBJECT);
    EXPECT_TRUE(reporter->HasSubscriber()) << "another one took its place";
    reporter->Send(std::vector<Report>(1));
    ASSERT_THAT(sizes, ElementsAre(1000, 1, 1));
    answers[2](ERR_DEAD_OBJECT);
    EXPECT_FALSE(reporter->HasSubscriber());
}

class CountingSubscriber : public Kelvra::KelvraManagerTaskSubscriber {
  public:
    void OnReportAbnormalProcess(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) override {
        records += infos.size();
    }
    size_t records = 0;
};

MessageParcel Batch(size_t count) {
    MessageParcel batch;
    Kelvra::ProcessAnomalyInfo info;
    info.processName = "some_daemon";
    info.conditions = {1, 2};
    EXPECT_TRUE(KelvraProtocol::WriteRecordList(std::vector(count, info), batch));
    return batch;
}

TEST(Subscriber, TakesOnlyWholeBatchesOfProvenSendersAsLongAsItIsThere) {
    auto subscriber = std::make_shared<CountingSubscriber>();
    const auto stub = MakeSptr<SubscriberStub>();
    stub->SetSubscriber(subscriber);
    const MessageParcel whole = Batch(3);
    std::vector<MessageParcel> broken(3);
    broken[0] = whole;
    broken[0].WriteInt32(0);
    broken[1] = Batch(0);
    broken[2].WriteUint32(std::numeric_limits<uint32_t>::max());
    for (size_t length = 0; length < whole.Bytes().size(); ++length) {
        const auto cut = whole.Bytes().first(length);
        broken.emplace_back(std::vector<std::byte>(cut.begin(), cut.end()));
    }
    for (MessageParcel& batch : broken) {
        EXPECT_EQ(stub->TakeBatch(batch), KelvraProtocol::kBadReport) << batch.Bytes().size();
    }
    MessageParcel batch = whole;
    MessageParcel reply;
    MessageOption option;
    EXPECT_EQ(stub->OnRemoteRequest(KelvraProtocol::kReport, batch, reply, option), ERR_REFUSED);
    EXPECT_EQ(subscriber->records, 0U);
    EXPECT_EQ(stub->TakeBatch(batch), ERR_NONE);
    EXPECT_EQ(subscriber->records, 3U);
    subscriber.reset();
    EXPECT_EQ(stub->TakeBatch(batch = whole), ERR_DEAD_OBJECT);
}

}  // namespace
}  // namespace KITE::Linux::Sampling
