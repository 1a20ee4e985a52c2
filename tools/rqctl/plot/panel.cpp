#include "rqctl/plot/panel.h"

#include <algorithm>
#include <iterator>
#include <limits>

namespace KITE::Rqctl {

namespace {

constexpr int64_t kMinute = 60'000;
// A longer run is not shown on one axis, and treatments further apart are not shown together.
constexpr int64_t kLongestAxis = 10 * kMinute;
constexpr int64_t kShortestAxis = 1000;
constexpr int64_t kBefore = kMinute;
constexpr int64_t kAfter = kMinute / 2;
constexpr int64_t kForEver = std::numeric_limits<int64_t>::max();

struct Range {
    int64_t begin;
    int64_t end;

    Range With(const Range& other) const { return {std::min(begin, other.begin), std::max(end, other.end)}; }
};

Range RangeOf(const TreatedProcess& process) {
    const Range treated{process.treatments.front().time, process.treatments.back().time};
    return process.samples.empty()
               ? treated
               : treated.With({process.samples.front().time, process.samples.back().time});
}

// A treatment without an end lasts as long as the process was seen.
std::vector<Band> BandsOf(const TreatedProcess& process) {
    std::vector<Band> bands;
    for (const Treatment& treatment : process.treatments) {
        if (treatment.error != 0) {
            continue;
        }
        for (Band& band : bands) {
            if (band.to == kForEver && (band.kind->begins & treatment.kind->ends) != 0) {
                band.to = treatment.time;
            }
        }
        if (treatment.kind->begins != 0) {
            bands.push_back({treatment.kind, treatment.time, kForEver});
        }
    }
    for (Band& band : bands) {
        const int64_t last = process.samples.empty() ? kForEver : process.samples.back().time;
        band.to = std::min(band.to, std::max(band.from, last));
    }
    return bands;
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

// Of a process, what lies in that time.
Panel PanelOf(const RunRecord::Process& process, const std::vector<Band>& bands, const Range& range) {
    Panel panel{&process, range.begin, std::max(range.end, range.begin + kShortestAxis), {}, {}};
    std::ranges::copy_if(
        process.second.treatments, std::back_inserter(panel.treatments),
        [&](int64_t time) { return time >= panel.begin && time <= panel.end; }, &Treatment::time);
    for (const Band& band : bands) {
        if (band.from <= panel.end && band.to >= panel.begin) {
            panel.bands.push_back(
                {band.kind, std::max(band.from, panel.begin), std::min(band.to, panel.end)});
        }
    }
    return panel;
}

}  // namespace

std::vector<Panel> PanelsOf(const RunRecord& record) {
    Range whole{kForEver, 0};
    for (const RunRecord::Process& process : record.processes) {
        whole = whole.With(RangeOf(process.second));
    }
    const bool isShort = whole.end - whole.begin <= kLongestAxis;
    std::vector<Panel> panels;
    for (const RunRecord::Process& process : record.processes) {
        const std::vector<Band> bands = BandsOf(process.second);
        for (const Range& range : isShort ? std::vector{whole} : EpisodesOf(process.second)) {
            panels.push_back(PanelOf(process, bands, range));
        }
    }
    std::ranges::stable_sort(panels, {}, [](const Panel& panel) { return panel.treatments.front().time; });
    return panels;
}

}  // namespace KITE::Rqctl
