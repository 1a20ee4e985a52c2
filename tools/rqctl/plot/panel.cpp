#include "rqctl/plot/panel.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace KITE::Rqctl {

namespace {

using Kind = Tools::TreatmentKind;

constexpr int64_t kMinute = 60'000;
// A longer run is not shown on one axis, and treatments further apart are not shown together.
constexpr int64_t kLongestAxis = 10 * kMinute;
constexpr int64_t kShortestAxis = 1000;
constexpr int64_t kBefore = kMinute;
constexpr int64_t kAfter = kMinute / 2;
constexpr int64_t kForEver = std::numeric_limits<int64_t>::max();

struct Range {
    int64_t begin = kForEver;
    int64_t end = 0;

    void Include(int64_t time) {
        begin = std::min(begin, time);
        end = std::max(end, time);
    }
    int64_t Length() const { return end - begin; }
};

Range RangeOf(const TreatedProcess& process) {
    Range range;
    for (const Treatment& treatment : process.treatments) {
        range.Include(treatment.time);
    }
    for (const Sample& sample : process.samples) {
        range.Include(sample.time);
    }
    return range;
}

Range RangeOf(const RunRecord& record) {
    Range whole;
    for (const auto& [key, process] : record.processes) {
        const Range range = RangeOf(process);
        whole.Include(range.begin);
        whole.Include(range.end);
    }
    return whole;
}

// A treatment without an end lasts as long as the process was seen.
std::vector<Band> BandsOf(const TreatedProcess& process) {
    std::vector<Band> bands;
    const auto end = [&](Kind kind, int64_t time) {
        for (Band& band : bands) {
            if (band.kind == kind && band.to == kForEver) {
                band.to = time;
            }
        }
    };
    for (const Treatment& treatment : process.treatments) {
        if (treatment.error != 0) {
            continue;
        }
        switch (treatment.kind) {
            case Kind::kSuppress:
            case Kind::kFreeze:
                end(treatment.kind, treatment.time);
                bands.push_back({treatment.kind, treatment.time, kForEver});
                break;
            case Kind::kSuppressEnd:
                end(Kind::kSuppress, treatment.time);
                break;
            case Kind::kThaw:
                end(Kind::kFreeze, treatment.time);
                break;
            case Kind::kKill:
            case Kind::kRelease:
                end(Kind::kSuppress, treatment.time);
                end(Kind::kFreeze, treatment.time);
                break;
        }
    }
    if (!process.samples.empty()) {
        for (Band& band : bands) {
            band.to = std::min(band.to, std::max(band.from, process.samples.back().time));
        }
    }
    return bands;
}

// The part of a process's record that lies in the panel's time.
void Fill(Panel& panel, const TreatedProcess& process, const std::vector<Band>& bands) {
    const auto isWithin = [&](const auto& one) { return one.time >= panel.begin && one.time <= panel.end; };
    std::ranges::copy_if(process.treatments, std::back_inserter(panel.treatments), isWithin);
    for (const Band& band : bands) {
        if (band.from <= panel.end && band.to >= panel.begin) {
            panel.bands.push_back(
                {band.kind, std::max(band.from, panel.begin), std::min(band.to, panel.end)});
        }
    }
    panel.process = &process;
}

// Times around treatments that lie close to each other, as far as the process was there.
std::vector<Range> EpisodesOf(const TreatedProcess& process) {
    const Range seen = RangeOf(process);
    std::vector<Range> episodes;
    for (const Treatment& treatment : process.treatments) {
        if (episodes.empty() || treatment.time - kBefore - episodes.back().end > kLongestAxis) {
            episodes.push_back({std::max(treatment.time - kBefore, seen.begin), 0});
        }
        episodes.back().end = std::min(treatment.time + kAfter, seen.end);
    }
    return episodes;
}

}  // namespace

std::vector<Panel> PanelsOf(const RunRecord& record) {
    const Range whole = RangeOf(record);
    const bool isShort = whole.Length() <= kLongestAxis;
    std::vector<Panel> panels;
    for (const auto& [key, process] : record.processes) {
        const std::vector<Band> bands = BandsOf(process);
        for (const Range& range : isShort ? std::vector{whole} : EpisodesOf(process)) {
            Panel& panel = panels.emplace_back();
            panel.pid = key.first;
            panel.name = key.second;
            panel.begin = range.begin;
            panel.end = std::max(range.end, range.begin + kShortestAxis);
            Fill(panel, process, bands);
        }
    }
    std::ranges::stable_sort(panels, {}, [](const Panel& panel) { return panel.treatments.front().time; });
    return panels;
}

}  // namespace KITE::Rqctl
