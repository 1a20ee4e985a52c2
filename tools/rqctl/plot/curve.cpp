#include "rqctl/plot/curve.h"

#include <algorithm>
#include <iterator>

namespace KITE::Rqctl {

namespace {

using Linux::Judged;
using Linux::ResourceType;

// More than two of the longest sample periods.
constexpr int64_t kGap = 150'000;

// Whether both are of one process without a gap between them; a counter of it does not fall.
bool IsContinuedBy(const ResourceType& type, const Sample& sample, const Sample& next) {
    const bool hasFallen = type.judged != Judged::kAmount && next.Of(type) < sample.Of(type);
    return next.start == sample.start && next.time - sample.time <= kGap && !hasFallen;
}

// What the growth of a counter comes to: percent of the time for nanoseconds, else the share of the duration.
double GrowthOf(const ResourceType& type, const Sample& from, const Sample& to, int64_t durationMs) {
    const auto growth = static_cast<double>(to.Of(type) - from.Of(type));
    const auto span = static_cast<double>(to.time - from.time);
    if (type.judged == Judged::kShareOfTime) {
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
    std::vector<Sample> readings;
    std::ranges::copy_if(samples, std::back_inserter(readings),
                         [&](const Sample& sample) { return sample.Of(type) >= 0; });
    std::vector<Point> curve;
    size_t base = 0;  // the reading that growth is counted from
    bool beginsPiece = true;
    for (size_t at = 0; at < readings.size(); ++at) {
        const Sample& reading = readings[at];
        if (at > 0 && !IsContinuedBy(type, readings[at - 1], reading)) {
            base = at;
            beginsPiece = true;
        }
        while (base + 1 < at && reading.time - readings[base + 1].time >= durationMs) {
            ++base;
        }
        if (type.judged == Judged::kAmount) {
            curve.push_back({reading.time, static_cast<double>(reading.Of(type)), beginsPiece});
        } else if (reading.time > readings[base].time) {
            const double growth = GrowthOf(type, readings[base], reading, durationMs);
            curve.push_back({reading.time, growth, beginsPiece});
        } else {
            continue;
        }
        beginsPiece = false;
    }
    return curve;
}

}  // namespace KITE::Rqctl
