#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/resource_types.h"
#include "base/result.h"
#include "rqctl/treatment_kinds.h"

namespace KITE::Rqctl {

// What the events file tells about one process at one moment.
struct Treatment {
    int64_t time;  // ms since the epoch
    const TreatmentKind* kind;
    int64_t error;       // 0: it was done
    std::string detail;  // by what means, and why

    // "frozen", or "failed: frozen".
    std::string Text() const { return (error == 0 ? "" : "failed: ") + std::string(kind->word); }
};

// A quota, as the samples file tells it: the limit in the resource type's unit, the duration in seconds.
struct Quota {
    int64_t limit = 0;
    int64_t duration = 0;

    auto operator<=>(const Quota&) const = default;
};
using Quotas = std::map<const Linux::ResourceType*, std::set<Quota>>;

// What the samples file tells about one process at one moment.
struct Sample {
    int64_t time = 0;
    int64_t start = 0;  // in clock ticks since boot; tells processes of the same pid apart
    // In the order of the resource types; negative where nothing was measured.
    std::array<int64_t, std::size(Linux::kResourceTypes)> values{};

    int64_t Of(const Linux::ResourceType& type) const {
        return values.at(static_cast<size_t>(&type - Linux::kResourceTypes));
    }
};

struct TreatedProcess {
    std::vector<Treatment> treatments;  // in order of time, as the samples
    std::vector<Sample> samples;
    Quotas quotas;  // as of the last sample
};

// What a state directory's files tell: each process that something was done to, by pid and name.
struct RunRecord {
    std::map<std::pair<int64_t, std::string>, TreatedProcess> processes;
    bool isDryRun = false;
    size_t skippedLines = 0;  // that are neither an event nor a sample
    bool hasSamples = false;

    using Process = decltype(processes)::value_type;
};

// Reads both files, each after its predecessor, PATH.1; any may be absent. Fails if events are unreadable.
Linux::Result<RunRecord> ReadRunRecord(const std::string& events, const std::string& samples);

}  // namespace KITE::Rqctl
