// Row 8: what one sample of the Kelvra manager costs.
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "kelvra/crowd.h"
#include "kelvra/rows.h"
#include "kelvra_manager/manager/process_table.h"
#include "percentile.h"

namespace KITE::Benchmarks {

namespace {

using std::chrono::seconds;

// What a sample cannot do without: one listing of /proc, and of each watched process the files with what its
// quotas are about and the one with its name.
class BareSample {
  public:
    explicit BareSample(const Crowd& crowd) {
        for (size_t i = 0; i < kWatched; ++i) {
            for (const char* file : {"statm", "io", "cmdline"}) {
                const std::string path = "/proc/" + std::to_string(crowd.Members()[i].Pid()) + "/" + file;
                files_.emplace_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            }
        }
    }

    void Run() {
        lseek(proc_.Get(), 0, SEEK_SET);
        while (syscall(SYS_getdents64, proc_.Get(), entries_.data(), entries_.size()) > 0) {
        }
        for (const Linux::UniqueFd& file : files_) {
            static_cast<void>(!pread(file.Get(), text_.data(), text_.size(), 0));
        }
    }

  private:
    const Linux::UniqueFd proc_{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    std::vector<Linux::UniqueFd> files_;
    std::array<char, 32768> entries_;
    std::array<char, 4096> text_;
};

// Of every resource type for each watched name; none is broken.
std::vector<Kelvra::ResQuotaInfo> Quotas() {
    std::vector<Kelvra::ResQuotaInfo> quotas;
    for (size_t i = 0; i < kWatched; ++i) {
        for (const auto& [type, limit] :
             {std::pair("mem", 1'000'000), {"cpu", 90}, {"cpu_ext", 90}, {"io", 1 << 30}}) {
            Kelvra::ResQuotaInfo quota;
            quota.processName = WatchedName(i);
            quota.resType = type;
            quota.resource = limit;
            quota.duration = 10;
            quota.action = "warning";
            quotas.push_back(std::move(quota));
        }
    }
    return quotas;
}

class TableSample {
  public:
    TableSample() {
        table_.UseRules(std::make_shared<Linux::Sampling::RuleBook>(Quotas()));
        // Until no process is young any more.
        constexpr int kSamplesBefore = 100;
        for (int i = 0; i < kSamplesBefore; ++i) {
            Run();
        }
    }

    void Run() {
        at_ += seconds(1);
        table_.Sample(at_, reporter_);
    }

    size_t WatchedCount() const { return table_.WatchedCount(); }

  private:
    const Linux::Sampling::Reporter reporter_;
    Linux::Sampling::ProcessTable table_;
    Linux::Sampling::TimePoint at_;
};

double MicrosecondsOf(const std::function<void()>& run) {
    const auto begin = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
}

// A birth that leads to a listing. Of a thread, since after a fork this process's own memory is slow for a
// while.
void BeBorn() {
    std::thread([] {}).join();
}

// What a process does to stop and go on moves its CPU clock.
void RunWatched(const Crowd& crowd) {
    for (size_t i = 0; i < kWatched; ++i) {
        crowd.Members()[i].Signal(SIGSTOP);
        crowd.Members()[i].Signal(SIGCONT);
    }
    sched_yield();
}

struct Times {
    std::vector<double> floor;
    std::vector<double> sample;

    // In turns one and the other comes first, and warms the caches for the second.
    void AddRound(BareSample& bare, TableSample& table) {
        if (floor.size() % 2 == 0) {
            floor.push_back(MicrosecondsOf([&] { bare.Run(); }));
            sample.push_back(MicrosecondsOf([&] { table.Run(); }));
        } else {
            sample.push_back(MicrosecondsOf([&] { table.Run(); }));
            floor.push_back(MicrosecondsOf([&] { bare.Run(); }));
        }
    }
    Figure ToFigure(size_t processes, const char* situation, double goal) const {
        const double floorTime = Percentile(floor, 50);
        const double sampleTime = Percentile(sample, 50);
        std::printf("sample of %zu processes, %s: %.0f us, floor %.0f us\n", processes, situation, sampleTime,
                    floorTime);
        return {"sample, " + std::to_string(kWatched) + " watched of " + std::to_string(processes) +
                    " processes, " + situation + " : pread of the same files and one listing of /proc",
                sampleTime / floorTime, goal, ""};
    }
};

void MeasureSample(Crowd& crowd, size_t processes, std::vector<Figure>& figures) {
    constexpr int kRounds = 200;
    crowd.GrowTo(processes);
    BareSample bare(crowd);
    TableSample table;
    if (table.WatchedCount() != kWatched) {
        throw std::runtime_error(std::to_string(table.WatchedCount()) + " processes are watched");
    }
    Times idle;
    Times busy;
    for (int round = 0; round < kRounds; ++round) {
        idle.AddRound(bare, table);
        RunWatched(crowd);
        BeBorn();
        busy.AddRound(bare, table);
    }
    figures.push_back(idle.ToFigure(processes, "idle", 1.25));
    figures.push_back(busy.ToFigure(processes, "all watched have run and one was born", 2.0));
}

}  // namespace

void AddSample() {
    AddFigures(8, [] {
        Crowd crowd(kWatched);
        std::vector<Figure> figures;
        for (const size_t processes : {200U, 1000U, 2000U}) {
            MeasureSample(crowd, processes, figures);
        }
        return figures;
    });
}

}  // namespace KITE::Benchmarks
