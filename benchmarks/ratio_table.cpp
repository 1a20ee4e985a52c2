#include "ratio_table.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <regex>
#include <utility>

namespace KITE::Benchmarks {

namespace {

struct PendingFigures {
    int number;
    std::function<std::vector<Figure>()> measure;
};

struct TableLine {
    int number;
    Figure figure;
};

std::vector<Row> g_rows;
std::vector<PendingFigures> g_pending;

std::string NameOf(const Row& row, const char* part) {
    return "row " + std::to_string(row.number) + " " + row.work + "/" + part;
}

// Keeps the times of every repetition beside what the console shows.
class Collector : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            hasFailures_ = hasFailures_ || run.error_occurred;
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                const std::string& name = run.run_name.function_name;
                times_[{name, Clock::kWall}].push_back(run.GetAdjustedRealTime());
                times_[{name, Clock::kProcessor}].push_back(run.GetAdjustedCPUTime());
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    bool HasFailures() const { return hasFailures_; }

    // 0 when nothing was measured under the name.
    double Median(const std::string& name, Clock clock) {
        std::vector<double>& times = times_[{name, clock}];
        if (times.empty()) {
            return 0;
        }
        auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        return *middle;
    }

  private:
    std::map<std::pair<std::string, Clock>, std::vector<double>> times_;
    bool hasFailures_ = false;
};

std::vector<TableLine> Ratios(Collector& collector) {
    std::vector<TableLine> lines;
    for (const Row& row : g_rows) {
        double work = collector.Median(NameOf(row, "work"), row.clock);
        double floor = collector.Median(NameOf(row, "floor"), row.clock);
        if (work > 0 && floor > 0) {
            lines.push_back({row.number, {row.work + " : " + row.floor, work / floor, row.goal, ""}});
        }
    }
    return lines;
}

// Without a loop the library would complain.
bool IsLoopSelected(const std::regex& filter) {
    return std::any_of(g_rows.begin(), g_rows.end(), [&filter](const Row& row) {
        return std::regex_search(NameOf(row, "work"), filter) ||
               std::regex_search(NameOf(row, "floor"), filter);
    });
}

bool MeasureFigures(const std::regex& filter, std::vector<TableLine>& lines) {
    bool complete = true;
    for (const PendingFigures& pending : g_pending) {
        if (!std::regex_search("row " + std::to_string(pending.number) + ' ', filter)) {
            continue;
        }
        try {
            for (Figure& figure : pending.measure()) {
                lines.push_back({pending.number, std::move(figure)});
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "row %d could not be measured: %s\n", pending.number, error.what());
            complete = false;
        }
    }
    return complete;
}

void Print(std::vector<TableLine>& lines) {
    std::stable_sort(lines.begin(), lines.end(),
                     [](const TableLine& a, const TableLine& b) { return a.number < b.number; });
    std::printf("\n| # | what | measured | goal | met |\n|---|---|---|---|---|\n");
    for (const TableLine& line : lines) {
        const Figure& figure = line.figure;
        std::printf("| %d | %s | %.3g %s | ", line.number, figure.what.c_str(), figure.value,
                    figure.unit.c_str());
        if (figure.goal > 0) {
            std::printf("%.3g %s | %s |\n", figure.goal, figure.unit.c_str(),
                        figure.value <= figure.goal ? "yes" : "no");
        } else {
            std::printf("- | - |\n");
        }
    }
}

}  // namespace

void AddRatio(Row row, Loop work, Loop floor) {
    benchmark::RegisterBenchmark(NameOf(row, "work").c_str(), std::move(work));
    benchmark::RegisterBenchmark(NameOf(row, "floor").c_str(), std::move(floor));
    g_rows.push_back(std::move(row));
}

void AddFigures(int number, std::function<std::vector<Figure>()> measure) {
    g_pending.push_back({number, std::move(measure)});
}

int RunBenchmarks(int argc, char** argv) {
    // In front of what was given, so that this wins.
    std::string repetitions = "--benchmark_repetitions=9";
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments{argv[0], repetitions.data(), interleaving.data()};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    arguments.push_back(nullptr);
    int count = static_cast<int>(arguments.size()) - 1;
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }
    Collector collector;
    const std::regex filter(benchmark::GetBenchmarkFilter());
    if (IsLoopSelected(filter)) {
        benchmark::RunSpecifiedBenchmarks(&collector);
    }
    std::vector<TableLine> lines = Ratios(collector);
    const bool complete = MeasureFigures(filter, lines);
    if (!lines.empty()) {
        Print(lines);
    }
    return complete && !collector.HasFailures() ? 0 : 1;
}

}  // namespace KITE::Benchmarks
