#include "kelvra_manager/manager/process_meter.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>

#include "proc/process_file.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

// None of the files that are read is longer, but for those that end with lines that are not needed.
using Buffer = std::array<char, 4096>;

}  // namespace

WindowKind WindowKindOf(Resource resource) {
    switch (resource) {
        case Resource::kMemory:
            return WindowKind::kLevel;
        case Resource::kCpu:
        case Resource::kCpuExt:
            return WindowKind::kPercent;
        case Resource::kIo:
            break;
    }
    return WindowKind::kAmount;
}

const char* RecordedNameOf(Resource resource) {
    switch (resource) {
        case Resource::kMemory:
            return "memory_kib";
        case Resource::kCpu:
        case Resource::kCpuExt:
            return "cpu_ns";
        case Resource::kIo:
            break;
    }
    return "written_bytes";
}

std::optional<int64_t> ProcessMeter::ReadValue(Resource resource) {
    switch (resource) {
        case Resource::kMemory:
            return ReadMemoryKiB();
        case Resource::kCpu:
        case Resource::kCpuExt:
            return ReadCpuTime();
        case Resource::kIo:
            break;
    }
    return ReadNumber("io", "write_bytes:");
}

ProcessMeter::ProcessMeter(pid_t pid, std::string_view name, std::span<const Rule> rules)
    : pid_(pid),
      name_(name),
      rules_(rules),
      cpuClock_(pid),
      smallestMemoryQuota_(std::numeric_limits<int64_t>::max()) {
    for (const Rule& rule : rules) {
        if (rule.resource == Resource::kMemory) {
            smallestMemoryQuota_ = std::min(smallestMemoryQuota_, rule.quota.resource);
        }
    }
}

Readings ProcessMeter::Read(TimePoint at) {
    Readings readings;
    for (const Rule& rule : rules_) {
        if (readings.contains(rule.resource)) {
            continue;
        }
        const TimePoint readAt = Clock::now();
        if (const std::optional<int64_t> value = ReadValue(rule.resource)) {
            readings[rule.resource] = {at, readAt, *value};
        }
    }
    return readings;
}

// For PSS the kernel walks the process's page tables under their lock, some milliseconds for a gigabyte. RSS
// is a number that the kernel has at hand, and PSS is never above it: within every quota it will do.
std::optional<int64_t> ProcessMeter::ReadMemoryKiB() {
    static const int64_t kPageKiB = sysconf(_SC_PAGESIZE) / 1024;
    Buffer buffer;
    const std::optional<int64_t> pages = ResidentPagesOf(ReadText("statm", buffer));
    if (!pages || *pages > std::numeric_limits<int64_t>::max() / kPageKiB) {
        return std::nullopt;
    }
    const int64_t residentKiB = *pages * kPageKiB;
    return residentKiB <= smallestMemoryQuota_ ? residentKiB : ReadNumber("smaps_rollup", "Pss:");
}

std::optional<int64_t> ProcessMeter::ReadCpuTime() const {
    const std::optional<nanoseconds> time = cpuClock_.Read();
    return time ? std::optional(time->count()) : std::nullopt;
}

std::optional<int32_t> ProcessMeter::ReadUid() {
    const std::optional<int64_t> uid = ReadNumber("status", "Uid:");
    return uid ? std::optional(static_cast<int32_t>(*uid)) : std::nullopt;
}

std::optional<int64_t> ProcessMeter::ReadNumber(const char* file, std::string_view key) {
    Buffer buffer;
    return NumberOfLine(ReadText(file, buffer), key);
}

std::string_view ProcessMeter::ReadText(const char* file, std::span<char> buffer) {
    const Result<std::string_view> text = ReadProcessFile(pid_, file, buffer);
    if (text) {
        return *text;
    }
    if (!MeansGone(text.Code()) && !warned_) {
        warned_ = true;
        PLATFORM_LOGW(
            "the quotas of process %{public}d, %{public}s, do not apply: /proc/%{public}d/%{public}s: "
            "%{public}s",
            pid_, name_.c_str(), pid_, file, text.Why().Text().c_str());
    }
    return {};
}

}  // namespace KITE::Linux::Sampling
