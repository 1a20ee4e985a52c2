#include "rqctl/plot/curve.h"

#include <algorithm>

namespace KITE::Rqctl {

namespace {

using Linux::Judged;
using Linux::ResourceType;

// More than two of the longest sample periods.
constexpr int64_t kGap = 150'000;

struct Reading {
    int64_t time;
    int64_t start;
    int64_t value;

    // Whether both are of one process without a gap between them; a counter of it does not fall.
    bool IsContinuedBy(const Reading& next, Judged judged) const {
        const bool hasFallen = judged != Judged::kAmount && next.value < value;
        return next.start == start && next.time - time <= kGap && !hasFallen;
    }
};

std::vector<Reading> ReadingsOf(const ResourceType& type, const std::vector<Sample>& samples) {
    std::vector<Reading> readings;
    for (const Sample& sample : samples) {
        if (sample.Of(type) >= 0) {
            readings.push_back({sample.time, sample.start, sample.Of(type)});
        }
    }
    return readings;
}

// What the growth of a counter comes to: percent of the time for nanoseconds, else the share of the duration.
double GrowthOf(Judged judged, const Reading& from, const Reading& to, int64_t durationMs) {
    const auto growth = static_cast<double>(to.value - from.value);
    const auto span = static_cast<double>(to.time - from.time);
    if (judged == Judged::kShareOfTime) {
        return growth / (span * 1e6) * 100;
    }
    const auto duration = static_cast<double>(durationMs);
    return span > duration && durationMs > 0 ? growth * duration / span : growth;
}

}  // namespace

std::vector<Point> CurveOf(const ResourceType& type, int64_t duration, const std::vector<Sample>& samples) {
    // A longer one reaches back to the first sample anyway.
    int64_t durationMs = std::clamp<int64_t>(duration, 0, INT32_MAX) * 1000;
    // The times are those of a wall clock: samples of a second apart are 999 ms apart at times.
    durationMs -= durationMs / 20;
    const std::vector<Reading> readings = ReadingsOf(type, samples);
    std::vector<Point> curve;
    size_t base = 0;  // the reading that growth is counted from
    bool beginsPiece = true;
    for (size_t at = 0; at < readings.size(); ++at) {
        const Reading& reading = readings[at];
        if (at > 0 && !readings[at - 1].IsContinuedBy(reading, type.judged)) {
            base = at;
            beginsPiece = true;
        }
        while (base + 1 < at && reading.time - readings[base + 1].time >= durationMs) {
            ++base;
        }
        if (type.judged == Judged::kAmount) {
            curve.push_back({reading.time, static_cast<double>(reading.value), beginsPiece});
        } else if (reading.time > readings[base].time) {
            const double growth = GrowthOf(type.judged, readings[base], reading, durationMs);
            curve.push_back({reading.time, growth, beginsPiece});
        } else {
            continue;
        }
        beginsPiece = false;
    }
    return curve;
}

}  // namespace KITE::Rqctl
