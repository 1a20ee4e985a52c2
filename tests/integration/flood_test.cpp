#include <fcntl.h>

#include <algorithm>
#include <iterator>
#include <sstream>
#include <thread>

#include "fixture.h"
#include "resource_quota_control_errors.h"

// Everything at once, above all for hosts that are built with the thread sanitizer.
namespace KITE::Integration {

namespace {

constexpr std::chrono::seconds kTime{5};
constexpr int kBatchesOfOneStay = 10;
constexpr size_t kRecordsOfBatch = 100;
constexpr size_t kSpareDescriptors = 16;  // of clients and processes that come and go
// Clang's build has ThreadSanitizer, which keeps a history of its own that grows by some MiB.
#ifdef __clang__
constexpr size_t kSpareKiB = 65536;
#else
constexpr size_t kSpareKiB = 2048;
#endif

}  // namespace

class FloodTest : public SystemTest {
  protected:
    // Asks, again and again until the end, and counts the answers that are right.
    std::jthread Client(const std::function<bool(BusClient&)>& ask) {
        return std::jthread([this, ask](const std::stop_token& stop) {
            BusClient client = Connect(kTrustedUid);
            while (!stop.stop_requested()) {
                ask(client) ? ++right_ : ++wrong_;
            }
        });
    }
    // A hundred reports, each with an id of its own: processes for all stages and actions, of which those
    // that were killed have successors, and one that is reported all the time.
    std::vector<Kelvra::ProcessAnomalyInfo> NextBatch() {
        constexpr std::pair<const char*, const char*> kKinds[] = {
            {"cpu_ext", ""}, {"cpu_ext", ""}, {"cpu", "freeze"}, {"mem", "kill"}, {"io", ""}};
        hogs_.resize(std::size(kKinds));
        std::vector<Kelvra::ProcessAnomalyInfo> batch;
        for (size_t i = 0; i < hogs_.size(); ++i) {
            if (hogs_[i] == nullptr || hogs_[i]->HasEnded()) {
                hogs_[i] = &StartTarget("hog" + std::to_string(i), {"idle"});
            }
            batch.push_back(Anomaly(*hogs_[i], kKinds[i].first, kKinds[i].second));
        }
        batch.resize(kRecordsOfBatch, batch.back());
        for (Kelvra::ProcessAnomalyInfo& info : batch) {
            info.id = reports_++;
        }
        return batch;
    }
    // Every report has come to the service once.
    void ExpectNoReportLostOrTwice() {
        std::vector<int> received(static_cast<size_t>(reports_));
        std::istringstream log(QuotaHost().log.Text());
        for (std::string line; std::getline(log, line);) {
            if (line.find("abnormal info pid is") != std::string::npos) {
                ++received.at(std::stoul(line.substr(line.rfind(' '))));
            }
        }
        EXPECT_EQ(reports_, std::ranges::count(received, 1));
    }

    int reports_ = 0;
    std::atomic<int> right_ = 0;
    std::atomic<int> wrong_ = 0;
    std::vector<Process*> hogs_;
};

TEST_F(FloodTest, AFloodOfReportsQueriesAndDumpsLosesNothingAndGrowsNothing) {
    // A sanitizer that keeps what was freed would grow by itself.
    setenv("ASAN_OPTIONS", "quarantine_size_mb=0:thread_local_quarantine_size_kb=0", 1);  // NOLINT
    FakeManager& manager = StartWithFakeManager();
    const Linux::UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const std::vector<int32_t> pids(2048, getpid());
    const std::function<bool(BusClient&)> questions[] = {
        [&](BusClient& client) { return WrittenBytesOf(client.AskWrittenBytes(pids)).size() == pids.size(); },
        [](BusClient& client) { return client.AskRunningTimes().reply.Bytes().size() == 8; },
        [&](BusClient& client) {
            return client.Dump("DumpHandledAbnormalEnhanceInfo", nowhere.Get()).status ==
                   ResourceQuotaCtl::ERR_OK;
        }};
    Process& host = QuotaHost().process;
    size_t descriptors = 0;
    size_t memoryKiB = 0;
    {
        std::vector<std::jthread> clients;
        std::ranges::transform(questions, std::back_inserter(clients),
                               [this](const auto& question) { return Client(question); });
        clients.push_back(Client(questions[0]));
        const auto begin = std::chrono::steady_clock::now();
        for (auto now = begin; now < begin + kTime; now = std::chrono::steady_clock::now()) {
            for (int batch = 0; batch < kBatchesOfOneStay; ++batch) {
                ASSERT_EQ(0, manager.Report(NextBatch()));
                hogs_[static_cast<size_t>(batch) % hogs_.size()]->Signal(SIGKILL);
            }
            ExpectLogged({"id is " + std::to_string(reports_ - 1) + "\n"});
            manager.Leave();
            manager.Return();
            ASSERT_TRUE(manager.AwaitSubscription());
            if (memoryKiB == 0 && std::chrono::steady_clock::now() > begin + kTime / 2) {
                descriptors = host.DescriptorCount();
                memoryKiB = host.ResidentKiB();
            }
        }
    }
    RecordProperty("reports", reports_);
    RecordProperty("answers", right_);
    EXPECT_GE(reports_, 1000);
    EXPECT_GT(right_, 100);
    EXPECT_LE(host.DescriptorCount(), descriptors + kSpareDescriptors);
    EXPECT_LE(host.ResidentKiB(), memoryKiB + kSpareKiB);
    EXPECT_EQ(0, wrong_);
    EXPECT_EQ(0, StopQuotaHost());
    ExpectNoReportLostOrTwice();
    ExpectNoTraces();
}

}  // namespace KITE::Integration
