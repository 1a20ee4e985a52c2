#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace KITE::Benchmarks {

// The ratio of the medians of `work` and `floor`, for work that does not fit a loop of Google Benchmark. Both
// return the time they took; they run in turns, `runs` times each, after one run of each that does not count.
template <typename Work, typename Floor>
double RatioInTurns(size_t runs, const Work& work, const Floor& floor) {
    using Times = std::vector<std::chrono::steady_clock::duration>;
    Times works;
    Times floors;
    work();
    floor();
    for (size_t i = 0; i < runs; ++i) {
        works.push_back(work());
        floors.push_back(floor());
    }
    const auto median = [](Times& times) {
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::ranges::nth_element(times, middle);
        return static_cast<double>(middle->count());
    };
    return median(works) / median(floors);
}

}  // namespace KITE::Benchmarks
