#include <fcntl.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "private_system.h"
#include "resource_quota_control_errors.h"

// Everything at once, above all for hosts that are built with the thread sanitizer.
namespace KITE::Integration {

namespace {

constexpr std::chrono::seconds kTime{5};

}  // namespace

class StressTest : public PrivateSystem {
  protected:
    // Asks, again and again until the end, and counts the answers that are right.
    template <typename Ask>
    std::jthread Client(Ask ask) {
        return std::jthread([this, ask](const std::stop_token& stop) {
            BusClient client = Connect(kTrustedUid);
            while (!stop.stop_requested()) {
                ask(client) ? ++right_ : ++wrong_;
            }
        });
    }
    // Processes for all stages and actions; those that were killed have successors.
    std::vector<Kelvra::ProcessAnomalyInfo> NextBatch() {
        constexpr std::pair<const char*, const char*> kKinds[] = {
            {"cpu_ext", "kill"}, {"cpu_ext", "kill"}, {"cpu", "freeze"}, {"io", "warning"}, {"mem", "kill"}};
        hogs_.resize(std::size(kKinds));
        std::vector<Kelvra::ProcessAnomalyInfo> batch;
        for (size_t i = 0; i < hogs_.size(); ++i) {
            if (hogs_[i] == nullptr || hogs_[i]->HasEnded()) {
                hogs_[i] = &StartTarget("hog" + std::to_string(i), {"burn", "2"});
            }
            batch.push_back(Anomaly(*hogs_[i], kKinds[i].first, kKinds[i].second));
        }
        return batch;
    }

    std::atomic<int> right_ = 0;
    std::atomic<int> wrong_ = 0;

  private:
    std::vector<Process*> hogs_;
};

TEST_F(StressTest, ReportsQueriesDumpsAndAFickleManagerDisturbNobody) {
    FakeManager& manager = StartWithFakeManager();
    const Linux::UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const auto askBytes = [](BusClient& client) {
        return WrittenBytesOf(client.AskWrittenBytes({getpid(), 1})).size() == 2;
    };
    const auto askTimes = [](BusClient& client) {
        return client.AskRunningTimes().reply.Bytes().size() == 8;
    };
    const auto dump = [&](BusClient& client) {
        return client.Dump({"DumpHandledAbnormalEnhanceInfo"}, nowhere.Get()).status ==
               ResourceQuotaCtl::ERR_OK;
    };
    int batches = 0;
    {
        const std::vector<std::jthread> clients = [&] {
            std::vector<std::jthread> all;
            all.push_back(Client(askBytes));
            all.push_back(Client(askBytes));
            all.push_back(Client(askTimes));
            all.push_back(Client(dump));
            return all;
        }();
        constexpr int kBatchesOfOneStay = 20;
        const auto end = std::chrono::steady_clock::now() + kTime;
        while (std::chrono::steady_clock::now() < end) {
            ASSERT_EQ(0, manager.Report(NextBatch()));
            if (++batches % kBatchesOfOneStay == 0) {
                manager.Leave();
                manager.Return();
                ASSERT_TRUE(manager.AwaitSubscription());
            }
        }
    }
    RecordProperty("batches", batches);
    RecordProperty("answers", right_);
    EXPECT_GT(batches, 20);
    EXPECT_GT(right_, 100);
    EXPECT_EQ(0, wrong_);
    EXPECT_EQ(0, StopQuotaHost());
    EXPECT_EQ(std::vector<std::string>(), TracesOfTreatments());
}

}  // namespace KITE::Integration
