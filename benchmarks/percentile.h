#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace KITE::Benchmarks {

// The value that so many percent of the others do not exceed; 50 gives the median. There must be some.
inline double Percentile(std::vector<double> values, double percent) {
    const auto last = static_cast<double>(values.size() - 1);
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(last * percent / 100);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

}  // namespace KITE::Benchmarks
