#include "kelvra_manager/manager/process_meter.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "proc/process_file.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

// Where a file is longer, what is read of it stands in front.
using Buffer = std::array<char, 4096>;

}  // namespace

ProcessMeter::ProcessMeter(pid_t pid, std::string_view name, std::span<const Rule> rules)
    : pid_(pid), name_(name), rules_(rules), cpuClock_(pid) {}

Readings ProcessMeter::Read(TimePoint at) {
    Readings readings;
    for (const Rule& rule : rules_) {
        if (readings.contains(rule.type)) {
            continue;
        }
        const TimePoint readAt = Clock::now();
        if (const std::optional<int64_t> value = ReadValue(rule.type->resource)) {
            readings[rule.type] = {at, readAt, *value};
        }
    }
    return readings;
}

std::optional<int64_t> ProcessMeter::ReadValue(Resource resource) {
    switch (resource) {
        case Resource::kMemory:
            return ReadMemoryKiB();
        case Resource::kCpu:
        case Resource::kCpuExt:
            return ReadCpuTime();
        case Resource::kIo:
            Buffer buffer;
            return NumberOfLine(ReadKept(io_, "io", buffer), "write_bytes:");
    }
    return std::nullopt;
}

// For PSS the kernel walks the process's page tables under their lock, some milliseconds for a gigabyte. RSS
// is a number that the kernel has at hand, and PSS is never above it: within every quota it will do.
std::optional<int64_t> ProcessMeter::ReadMemoryKiB() {
    static const int64_t kPageKiB = sysconf(_SC_PAGESIZE) / 1024;
    Buffer buffer;
    const std::optional<int64_t> pages = ResidentPagesOf(ReadKept(statm_, "statm", buffer));
    if (!pages || *pages > std::numeric_limits<int64_t>::max() / kPageKiB) {
        return std::nullopt;
    }
    const int64_t residentKiB = *pages * kPageKiB;
    const auto mayBeBroken = [residentKiB](const Rule& rule) {
        return rule.type->resource == Resource::kMemory && residentKiB > rule.quota.resource;
    };
    if (std::ranges::none_of(rules_, mayBeBroken)) {
        return residentKiB;
    }
    // Opened anew: a kept descriptor stays with the memory that the process had before an exec.
    const Result<std::string_view> rollup = ReadProcessFile(pid_, "smaps_rollup", buffer);
    return NumberOfLine(TextOrWarning(rollup, "smaps_rollup"), "Pss:");
}

std::optional<int64_t> ProcessMeter::ReadCpuTime() {
    const std::optional<nanoseconds> time = cpuClock_.Read();
    return time ? std::optional(time->count()) : std::nullopt;
}

std::optional<int64_t> ProcessMeter::ReadUid() {
    Buffer buffer;
    return NumberOfLine(TextOrWarning(ReadProcessFile(pid_, "status", buffer), "status"), "Uid:");
}

std::string_view ProcessMeter::ReadKept(UniqueFd& kept, const char* file, std::span<char> buffer) {
    if (!kept) {
        Result<UniqueFd> opened = OpenProcessFile(pid_, file);
        if (!opened) {
            return TextOrWarning(opened.Why(), file);
        }
        kept = std::move(*opened);
    }
    return TextOrWarning(ReadOpenFile(kept, buffer), file);
}

std::string_view ProcessMeter::TextOrWarning(const Result<std::string_view>& text, const char* file) {
    if (text) {
        return *text;
    }
    if (!MeansGone(text.Code()) && !std::exchange(warned_, true)) {
        PLATFORM_LOGW(
            "the quotas of process %{public}d, %{public}s, do not apply: /proc/%{public}d/%{public}s: "
            "%{public}s",
            pid_, name_.c_str(), pid_, file, text.Why().Text().c_str());
    }
    return {};
}

}  // namespace KITE::Linux::Sampling
