// What the benchmarks have in common: each row of the table sets a piece of work against a floor that is
// measured in the same run, since seconds of one machine say nothing about another.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace KITE::Benchmarks {

// A loop over the state, as Google Benchmark wants it.
using Loop = std::function<void(benchmark::State&)>;

// What a loop is measured by. Processor time is the calling thread's, and what else runs on the machine
// hardly matters to it; only wall time counts what the thread waits for.
enum class Clock { kWall, kProcessor };

struct Row {
    int number = 0;
    std::string work;
    std::string floor;
    double goal = 0;  // the ratio of work to floor that must not be exceeded
    Clock clock = Clock::kWall;
};

// A line of the table that does not come from two loops: a percentile, an amount, a ratio measured by hand.
struct Figure {
    std::string what;
    double value = 0;
    double goal = 0;   // not to be exceeded; 0 when it is only there to be compared with
    std::string unit;  // "" for a ratio
};

// Adds a row. The two loops run in turns, a number of times each; the ratio is that of their medians.
void AddRatio(Row row, Loop work, Loop floor);

// Adds rows that `measure` fills in. It runs once, after all loops. What it throws is reported as the row's
// failure.
void AddFigures(int number, std::function<std::vector<Figure>()> measure);

// Runs everything that was added, prints the table, and returns the exit status: 0 unless something could not
// be measured. A goal that is missed is shown; the status stays 0. Options of Google Benchmark are taken
// (--benchmark_filter and others); it filters figures too, by "row N ".
int RunBenchmarks(int argc, char** argv);

}  // namespace KITE::Benchmarks
