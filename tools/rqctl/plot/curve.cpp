#include "rqctl/plot/curve.h"

#include <algorithm>

namespace KITE::Rqctl {

namespace {

// More than two of the longest sample periods.
constexpr int64_t kGap = 150'000;

using Counter = int64_t Sample::*;

bool IsContinued(const Sample& before, const Sample& sample) {
    return sample.start == before.start && sample.time - before.time <= kGap;
}

std::vector<Point> LevelCurve(const std::vector<Sample>& samples) {
    std::vector<Point> curve;
    const Sample* before = nullptr;
    for (const Sample& sample : samples) {
        if (sample.memoryKiB >= 0) {
            curve.push_back({sample.time, static_cast<double>(sample.memoryKiB),
                             before == nullptr || !IsContinued(*before, sample)});
            before = &sample;
        }
    }
    return curve;
}

// The growth of a counter between two samples: percent of the time for nanoseconds, bytes for the share of
// the duration.
double GrowthOf(Counter counter, const Sample& from, const Sample& to, int64_t durationMs) {
    const auto growth = static_cast<double>(to.*counter - from.*counter);
    const auto span = static_cast<double>(to.time - from.time);
    if (counter == &Sample::cpuNs) {
        return growth / (span * 1e6) * 100;
    }
    return span > static_cast<double>(durationMs) && durationMs > 0
               ? growth * static_cast<double>(durationMs) / span
               : growth;
}

std::vector<Point> CounterCurve(Counter counter, int64_t durationMs, const std::vector<Sample>& samples) {
    std::vector<Point> curve;
    std::vector<const Sample*> piece;
    size_t base = 0;
    bool beginsPiece = true;
    for (const Sample& sample : samples) {
        if (sample.*counter < 0) {
            continue;
        }
        if (!piece.empty() &&
            (!IsContinued(*piece.back(), sample) || sample.*counter < piece.back()->*counter)) {
            piece.clear();
            base = 0;
            beginsPiece = true;
        }
        piece.push_back(&sample);
        while (base + 2 < piece.size() && sample.time - piece[base + 1]->time >= durationMs) {
            ++base;
        }
        if (sample.time > piece[base]->time) {
            curve.push_back({sample.time, GrowthOf(counter, *piece[base], sample, durationMs), beginsPiece});
            beginsPiece = false;
        }
    }
    return curve;
}

}  // namespace

std::vector<Point> CurveOf(std::string_view resource, int64_t duration, const std::vector<Sample>& samples) {
    if (resource == "mem") {
        return LevelCurve(samples);
    }
    // A longer one reaches back to the first sample anyway.
    int64_t durationMs = std::clamp<int64_t>(duration, 0, INT32_MAX) * 1000;
    // The times are those of a wall clock: samples of a second apart are 999 ms apart at times.
    durationMs -= durationMs / 20;
    if (resource == "io") {
        return CounterCurve(&Sample::writtenBytes, durationMs, samples);
    }
    return CounterCurve(&Sample::cpuNs, durationMs, samples);
}

}  // namespace KITE::Rqctl
