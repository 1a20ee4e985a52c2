// kite_load [SECONDS]: the whole system under load, for a minute unless told otherwise. Two private buses:
//
//   reports   the quota host with 20,000 quota records takes 100 batches of 100 reports a second, each of a
//             living process and with an action "warning", beside queries of 2,048 pids and dumps;
//   samples   both hosts with the same records; the Kelvra manager samples 2,000 watched processes.
//
// Prints resident memory and descriptors of the hosts, and how many reports were recorded and handled. The
// exit status is 0 when none was lost or handled twice, each answer was right, and the hosts kept to their
// memory after the first quarter.
#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "integration/bus_client.h"
#include "integration/process.h"
#include "integration/tested_system.h"
#include "kelvra/crowd.h"

namespace KITE::Benchmarks {

namespace {

using Integration::Process;
using Integration::TestedSystem;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr size_t kNames = 5000;  // with four quota records each
constexpr size_t kWatched = 2000;
constexpr size_t kAskedPids = 2048;
constexpr size_t kReportsOfBatch = 100;
constexpr milliseconds kBatchPeriod{10};
constexpr milliseconds kAskPeriod{100};
constexpr int64_t kMostGrowthKiB = 2048;
constexpr int64_t kMostMoreDescriptors = 16;

struct Usage {
    int64_t residentKiB = 0;
    int64_t descriptors = 0;
};

// One host, looked at from time to time.
class Watch {
  public:
    Watch(const char* name, const Process& process) : name_(name), process_(process) {}

    void Look() {
        looks_.push_back(
            {static_cast<int64_t>(process_.ResidentKiB()), static_cast<int64_t>(process_.DescriptorCount())});
    }
    // The looks: before the load, after the first quarter, at the end.
    bool PrintAndJudge() const {
        std::printf("%-32s", name_);
        for (const Usage& usage : looks_) {
            std::printf("  %7ld KiB %5ld", usage.residentKiB, usage.descriptors);
        }
        const Usage& before = looks_[1];
        const Usage& after = looks_.back();
        const bool isFlat = after.residentKiB - before.residentKiB <= kMostGrowthKiB &&
                            after.descriptors - before.descriptors <= kMostMoreDescriptors;
        std::printf("  %s\n", isFlat ? "flat" : "GROWS");
        return isFlat;
    }

  private:
    const char* name_;
    const Process& process_;
    std::vector<Usage> looks_;
};

// Asks again and again, in a thread of its own, until it is destroyed.
class Asker {
  public:
    template <typename Ask>
    Asker(const TestedSystem& system, Ask ask)
        : thread_([this, &system, ask](const std::stop_token& stop) {
              Integration::BusClient client = system.Connect(Integration::kTrustedUid);
              for (auto next = Clock::now(); !stop.stop_requested(); std::this_thread::sleep_until(next)) {
                  ask(client) ? ++right_ : ++wrong_;
                  next = std::max(next + kAskPeriod, Clock::now());
              }
          }) {}

    int Right() const { return right_; }
    int Wrong() const { return wrong_; }

  private:
    std::atomic<int> right_ = 0;
    std::atomic<int> wrong_ = 0;
    std::jthread thread_;
};

// Sends batches, each report with an id of its own, which counts them.
class Reports {
  public:
    Reports(Integration::FakeManager& manager, const Crowd& crowd) : manager_(manager) {
        for (size_t i = 0; i < kReportsOfBatch; ++i) {
            batch_.push_back(Integration::Anomaly(crowd.Members()[i], "mem", "warning"));
        }
    }

    void SendUntil(Clock::time_point end) {
        for (auto next = Clock::now(); next < end; next += kBatchPeriod) {
            std::this_thread::sleep_until(next);
            for (Kelvra::ProcessAnomalyInfo& info : batch_) {
                info.id = sent_++;
            }
            refused_ += manager_.Report(batch_) == 0 ? 0 : 1;
            // A second's lag is caught up with, more is not.
            next = std::max<Clock::time_point>(next, Clock::now() - std::chrono::seconds(1));
        }
    }
    int32_t Sent() const { return sent_; }
    int Refused() const { return refused_; }

  private:
    Integration::FakeManager& manager_;
    std::vector<Kelvra::ProcessAnomalyInfo> batch_;
    int32_t sent_ = 0;
    int refused_ = 0;
};

// How often each report stands in the service's log: when it came, and when its action was executed.
struct Counts {
    explicit Counts(int32_t sent) : recorded(static_cast<size_t>(sent)), handled(recorded) {}

    void Take(std::string_view line) {
        const size_t at = line.rfind("id is ");
        size_t id = 0;
        if (at == std::string_view::npos || line.find(" abnormal info ") == std::string_view::npos ||
            std::from_chars(line.data() + at + 6, line.data() + line.size(), id).ec != std::errc() ||
            id >= recorded.size()) {
            isDropping = isDropping || line.find("log lines were dropped") != std::string_view::npos;
            return;
        }
        const bool isExecution = line.find("(ExecuteAbnormalProcess)") != std::string_view::npos;
        ++(isExecution ? handled : recorded)[id];
    }
    static size_t Once(const std::vector<uint8_t>& counts) {
        return static_cast<size_t>(std::ranges::count(counts, 1));
    }

    std::vector<uint8_t> recorded;
    std::vector<uint8_t> handled;
    bool isDropping = false;
};

Counts ReadLog(const std::string& path, int32_t sent) {
    Counts counts(sent);
    std::ifstream log(path);
    for (std::string line; std::getline(log, line);) {
        counts.Take(line);
    }
    return counts;
}

class LoadRun {
  public:
    explicit LoadRun(std::chrono::seconds time) : time_(time) {
        crowd_.GrowTo(std::max(kAskedPids, ProcessCount() + kAskedPids));
        reporting_.SetPolicy({WatchedPolicy(kNames)});
        reports_.emplace(reporting_.StartWithFakeManager(), crowd_);
        sampling_.SetPolicy({WatchedPolicy(kNames)});
        sampling_.SetParameters("{}");
        sampling_.StartWhole();
        watches_.emplace_back("quota host that takes reports", reporting_.QuotaHost().process);
        watches_.emplace_back("Kelvra manager that samples", sampling_.KelvraHost().process);
        watches_.emplace_back("its quota host", sampling_.QuotaHost().process);
    }

    bool Run() {
        LookAtHosts();
        {
            const Asker bytes(reporting_, [this](auto& client) { return AsksBytes(client); });
            const Asker dumps(reporting_, [this](auto& client) { return Dumps(client); });
            const auto begin = Clock::now();
            reports_->SendUntil(begin + time_ / 4);
            LookAtHosts();
            reports_->SendUntil(begin + time_);
            LookAtHosts();
            const std::chrono::duration<double> passed = Clock::now() - begin;
            std::printf("%.0f reports a second; %d queries of %zu pids, %d dumps, %d wrong answers\n",
                        reports_->Sent() / passed.count(), bytes.Right(), kAskedPids, dumps.Right(),
                        bytes.Wrong() + dumps.Wrong());
            areAnswersRight_ = bytes.Wrong() + dumps.Wrong() == 0;
        }
        const bool isComplete = CountReports();
        std::printf("%-32s  %19s  %19s  %19s\n", "resident memory, descriptors", "start", "after a quarter",
                    "end");
        const auto grown =
            std::ranges::count_if(watches_, [](const Watch& watch) { return !watch.PrintAndJudge(); });
        return areAnswersRight_ && isComplete && grown == 0;
    }

  private:
    bool AsksBytes(Integration::BusClient& client) const {
        std::vector<int32_t> pids;
        for (size_t i = 0; i < kAskedPids; ++i) {
            pids.push_back(crowd_.Members()[i].Pid());
        }
        return Integration::WrittenBytesOf(client.AskWrittenBytes(pids)).size() == kAskedPids;
    }
    bool Dumps(Integration::BusClient& client) {
        constexpr const char* kWords[] = {"DumpConfig", "DumpReportedAbnormalInfo",
                                          "DumpHandledAbnormalInfo"};
        const Linux::UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        const Integration::Answer answer = client.Dump(kWords[dumps_++ % std::size(kWords)], nowhere.Get());
        return answer.error.empty() && answer.status == 0;
    }
    void LookAtHosts() {
        for (Watch& watch : watches_) {
            watch.Look();
        }
    }
    bool CountReports() {
        const int32_t sent = reports_->Sent();
        // A host that stops handles what it has accepted.
        const bool isStopped = reporting_.StopQuotaHost() == 0;
        const Counts counts = ReadLog(reporting_.QuotaHost().log.Path(), sent);
        const size_t recorded = Counts::Once(counts.recorded);
        const size_t handled = Counts::Once(counts.handled);
        std::printf("%d reports sent, %d batches refused, %zu recorded once, %zu handled once%s\n", sent,
                    reports_->Refused(), recorded, handled, counts.isDropping ? "; LOG LINES DROPPED" : "");
        return isStopped && reports_->Refused() == 0 && recorded == counts.recorded.size() &&
               handled == recorded;
    }

    const std::chrono::seconds time_;
    Crowd crowd_{kWatched};
    TestedSystem reporting_;
    TestedSystem sampling_;
    std::optional<Reports> reports_;
    std::vector<Watch> watches_;
    size_t dumps_ = 0;
    bool areAnswersRight_ = false;
};

}  // namespace

}  // namespace KITE::Benchmarks

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
    if (argc > 2 || seconds < 1) {
        std::fprintf(stderr, "usage: kite_load [SECONDS]\n");
        return 2;
    }
    try {
        return KITE::Benchmarks::LoadRun(std::chrono::seconds(seconds)).Run() ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "the load run failed: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
