// Row 7: a line with a journal that reads, with one that does not, and one that is not to be written.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <vector>

#include "ratio_table.h"
#include "runtime/journal_stand_in.h"
#include "system_log.h"

namespace KITE::Benchmarks {

namespace {

// A dropped line would cost less.
constexpr int kBatch = JournalStandIn::kBatch;

constexpr Log::Label kLabel{0xD001700, "KITE_BENCHMARK"};

// Arguments that the compiler does not know, of the types and sizes of a report's.
struct Report {
    const char* name = "com.example.indexer";
    int pid = 4711;
    int uid = 20010043;
    const char* action = "warning";
    long duration = 60;
    unsigned id = 17;
};

#define REPORT_FORMAT                                                                                  \
    "process %{public}s, pid %{public}d, uid %{public}d, action %{public}s, duration %{public}ld, id " \
    "%{public}u"

void WriteLine(const Report& report) {
    KITE_LOG(Log::Level::kInfo, kLabel, REPORT_FORMAT, report.name, report.pid, report.uid, report.action,
             report.duration, report.id);
}

void WriteLineBelowTheLevel(const Report& report) {
    KITE_LOG(Log::Level::kDebug, kLabel, REPORT_FORMAT, report.name, report.pid, report.uid, report.action,
             report.duration, report.id);
}

// The same text, in one datagram without the journal's fields.
void SendBareLine(int socket, const Report& report) {
    static constexpr char kFormat[] =
        "[%s(%s):%d] process %s, pid %d, uid %d, action %s, duration %ld, id %u";
    std::array<char, 1024> text;
    const int length =
        std::snprintf(text.data(), text.size(), kFormat, "log_benchmark", "WriteLine", __LINE__, report.name,
                      report.pid, report.uid, report.action, report.duration, report.id);
    iovec part{text.data(), static_cast<size_t>(length)};
    msghdr datagram{};
    datagram.msg_iov = &part;
    datagram.msg_iovlen = 1;
    benchmark::DoNotOptimize(sendmsg(socket, &datagram, MSG_NOSIGNAL | MSG_DONTWAIT));
}

// Times `write` alone; the lines are taken from the socket in between.
template <typename Write>
void MeasureLines(benchmark::State& state, JournalStandIn& journal, const Write& write) {
    Report report;
    benchmark::DoNotOptimize(report);
    write(report);  // connects, and tells what was dropped before
    journal.Drain();
    while (state.KeepRunningBatch(kBatch)) {
        for (int i = 0; i < kBatch; ++i) {
            write(report);
        }
        state.PauseTiming();
        if (journal.Drain() != kBatch) {
            state.SkipWithError("lines were lost");
            return;
        }
        state.ResumeTiming();
    }
}

void MeasureBareLines(benchmark::State& state, JournalStandIn& journal) {
    const Linux::UniqueFd socket = journal.Connect();
    MeasureLines(state, journal, [&socket](const Report& report) { SendBareLine(socket.Get(), report); });
}

// The journal takes no line while this is measured.
void MeasureStalledLines(benchmark::State& state, JournalStandIn& journal) {
    const Report report;
    for (int i = 0; i < 2 * JournalStandIn::kCapacity; ++i) {
        WriteLine(report);
    }
    for (auto _ : state) {
        WriteLine(report);
    }
    journal.Drain();
}

template <typename Work>
double NanosecondsEach(const Work& work) {
    constexpr int kTimes = 20'000'000;
    constexpr int kRuns = 5;
    std::array<double, kRuns> runs{};
    for (double& run : runs) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < kTimes; ++i) {
            work();
        }
        const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - begin;
        run = taken.count() / kTimes;
    }
    std::ranges::sort(runs);
    return runs[kRuns / 2];
}

std::vector<Figure> MeasureLinesBelowTheLevel() {
    Report report;
    benchmark::DoNotOptimize(report);
    const double line = NanosecondsEach([&report] {
        WriteLineBelowTheLevel(report);
        benchmark::ClobberMemory();
    });
    const double load = NanosecondsEach([] {
        benchmark::DoNotOptimize(Log::minimumLevel.load(std::memory_order_relaxed));
        benchmark::ClobberMemory();
    });
    char what[100];
    std::snprintf(what, sizeof(what),
                  "a log line below the level (a loop with the atomic load alone: %.2g ns)", load);
    return {{what, line, 2.0, "ns"}};
}

void AddLogLines(JournalStandIn& journal) {
    const auto floor = [&journal](benchmark::State& state) { MeasureBareLines(state, journal); };
    AddRatio(
        {7, "a log line of six arguments", "vsnprintf and a non-blocking sendmsg", 1.3},
        [&journal](benchmark::State& state) { MeasureLines(state, journal, WriteLine); }, floor);
    AddRatio(
        {7, "a log line when the journal stalls", "vsnprintf and a non-blocking sendmsg", 1.3},
        [&journal](benchmark::State& state) { MeasureStalledLines(state, journal); }, floor);
    AddFigures(7, MeasureLinesBelowTheLevel);
}

}  // namespace

}  // namespace KITE::Benchmarks

int main(int argc, char** argv) {
    using namespace KITE::Benchmarks;
    try {
        JournalStandIn journal;
        AddLogLines(journal);
        return RunBenchmarks(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kite_log_benchmarks: %s\n", error.what());
    } catch (...) {
        std::fprintf(stderr, "kite_log_benchmarks failed\n");
    }
    return 1;
}
