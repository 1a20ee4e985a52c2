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

    bool IsContinuedBy(const Reading& next, bool isCounter) const {
        return next.start == start && next.time - time <= kGap && !(isCounter && next.value < value);
    }
};

using Readings = std::vector<Reading>;

// The pieces: without a gap, of one process, and of a counter that does not fall.
std::vector<Readings> PiecesOf(const ResourceType& type, const std::vector<Sample>& samples) {
    std::vector<Readings> pieces;
    for (const Sample& sample : samples) {
        const Reading reading{sample.time, sample.start, sample.Of(type)};
        if (reading.value < 0) {
            continue;
        }
        if (pieces.empty() || !pieces.back().back().IsContinuedBy(reading, type.judged != Judged::kAmount)) {
            pieces.emplace_back();
        }
        pieces.back().push_back(reading);
    }
    return pieces;
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

void AddAmounts(const Readings& piece, std::vector<Point>& curve) {
    for (const Reading& reading : piece) {
        curve.push_back({reading.time, static_cast<double>(reading.value), &reading == &piece.front()});
    }
}

void AddGrowth(Judged judged, const Readings& piece, int64_t durationMs, std::vector<Point>& curve) {
    size_t base = 0;
    bool beginsPiece = true;
    for (size_t at = 1; at < piece.size(); ++at) {
        const Reading& reading = piece[at];
        while (base + 1 < at && reading.time - piece[base + 1].time >= durationMs) {
            ++base;
        }
        if (reading.time > piece[base].time) {
            curve.push_back({reading.time, GrowthOf(judged, piece[base], reading, durationMs), beginsPiece});
            beginsPiece = false;
        }
    }
}

}  // namespace

std::vector<Point> CurveOf(const ResourceType& type, int64_t duration, const std::vector<Sample>& samples) {
    // A longer one reaches back to the first sample anyway.
    int64_t durationMs = std::clamp<int64_t>(duration, 0, INT32_MAX) * 1000;
    // The times are those of a wall clock: samples of a second apart are 999 ms apart at times.
    durationMs -= durationMs / 20;
    std::vector<Point> curve;
    for (const Readings& piece : PiecesOf(type, samples)) {
        if (type.judged == Judged::kAmount) {
            AddAmounts(piece, curve);
        } else {
            AddGrowth(type.judged, piece, durationMs, curve);
        }
    }
    return curve;
}

}  // namespace KITE::Rqctl
