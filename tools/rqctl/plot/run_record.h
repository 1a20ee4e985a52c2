#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace KITE::Rqctl {

// What the event file tells about one process at one moment.
struct Treatment {
    enum class Kind : uint8_t { kSuppress, kSuppressEnd, kFreeze, kThaw, kKill, kRelease };

    int64_t time = 0;  // ms since the epoch
    Kind kind = Kind::kSuppress;
    int64_t error = 0;   // 0: it was done
    std::string detail;  // by what means, and why
};

// A quota, as the sample file tells it: the limit in the resource's unit, the duration in seconds.
struct Quota {
    int64_t limit = 0;
    int64_t duration = 0;

    auto operator<=>(const Quota&) const = default;
};

// What the sample file tells about one process at one moment; a number is negative where nothing was
// measured.
struct Sample {
    int64_t time = 0;
    int64_t start = 0;  // in clock ticks since boot; tells processes of the same pid apart
    int64_t cpuNs = -1;
    int64_t memoryKiB = -1;
    int64_t writtenBytes = -1;
};

// A process that was treated, by pid and name.
struct TreatedRecord {
    std::vector<Treatment> treatments;  // in order of time, as the samples
    std::vector<Sample> samples;
    std::map<std::string, std::vector<Quota>> quotas;  // by resource, as of the last sample; sorted
};

// What a state directory's files tell: each process that something was done to.
struct RunRecord {
    std::map<std::pair<int32_t, std::string>, TreatedRecord> processes;
    bool isDryRun = false;
    size_t skippedLines = 0;  // that were none of ours
    bool hasSamples = false;
};

// Reads the two files, each after its predecessor, PATH.1. False with the reason in `error` when the
// events cannot be read; there may be none, and no samples.
bool ReadRunRecord(const std::string& events, const std::string& samples, RunRecord& record,
                   std::string& error);

}  // namespace KITE::Rqctl
