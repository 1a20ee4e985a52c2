#include "kelvra_manager/manager/watched_process.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include "base/text.h"
#include "device/device_state.h"
#include "proc/command_line.h"
#include "proc/process_file.h"
#include "proc/process_stat.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

using Buffer = std::array<char, kCommandLineBuffer>;

const int64_t kPageKiB = sysconf(_SC_PAGESIZE) / 1024;
const int64_t kMostPages = std::numeric_limits<int64_t>::max() / kPageKiB;

}  // namespace

std::unique_ptr<WatchedProcess> WatchedProcess::Open(pid_t pid, UniqueFd cmdline, std::string_view name,
                                                     std::span<const Rule> rules) {
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    if (!stat) {
        return nullptr;
    }
    auto process = std::make_unique<WatchedProcess>(pid, stat->startTime, std::move(cmdline), name, rules);
    process->OpenWhatRulesNeed(rules);
    process->WarnIfServiceSeesAnother();
    return process;
}

WatchedProcess::WatchedProcess(pid_t pid, int64_t startTime, UniqueFd cmdline, std::string_view name,
                               std::span<const Rule> rules)
    : pid_(pid),
      startTime_(startTime),
      name_(name),
      cmdline_(std::move(cmdline)),
      smallestMemoryQuota_(std::numeric_limits<int64_t>::max()),
      cpuClock_(pid),
      rules_(rules),
      windows_(rules) {}

void WatchedProcess::OpenWhatRulesNeed(std::span<const Rule> rules) {
    bool needsMemory = false;
    bool needsIo = false;
    for (const Rule& rule : rules) {
        needsMemory |= rule.resource == Resource::kMemory;
        needsIo |= rule.resource == Resource::kIo;
        if (rule.resource == Resource::kMemory) {
            smallestMemoryQuota_ = std::min(smallestMemoryQuota_, rule.quota.resource);
        }
    }
    if (needsMemory) {
        statm_ = OpenOrWarn("statm");
    }
    if (needsIo) {
        io_ = OpenOrWarn("io");
    }
}

UniqueFd WatchedProcess::OpenOrWarn(const char* name) {
    UniqueFd file = OpenProcessFile(pid_, name);
    if (!file) {
        WarnUnreadable(name, LastError());
    }
    return file;
}

void WatchedProcess::WarnIfServiceSeesAnother() const {
    Buffer buffer;
    SeenName seen;
    off_t offset = 0;
    Result<std::string_view> piece = ReadOpenFile(cmdline_, buffer);
    while (piece && !piece->empty()) {
        seen.Add(*piece);
        offset += static_cast<off_t>(piece->size());
        piece = ReadOpenFile(cmdline_, buffer, offset);
    }
    const bool isRead = piece && CurrentStanding() == Standing::kSame;
    if (isRead && !IsAcceptedAs(seen.Text(), name_)) {
        PLATFORM_LOGW(
            "reports of process %{public}d, %{public}s, will not be believed: a slash in its "
            "arguments makes its name read \"%{public}s\"",
            pid_, name_.c_str(), Printable(seen.Text()).c_str());
    }
}

WatchedProcess::Standing WatchedProcess::Sample(TimePoint at, SampleRecorder* recorder) {
    last_.at = at;
    last_.memoryKiB = statm_ ? ReadMemoryKiB() : std::nullopt;
    isVerified_ = HasRun();
    if (isVerified_) {
        last_.writtenBytes = io_ ? ReadWrittenBytes() : std::nullopt;
        if (const Standing standing = CurrentStanding(); standing != Standing::kSame) {
            return standing;
        }
    }
    windows_.Add(last_);
    if (recorder != nullptr) {
        recorder->Add(pid_, startTime_, name_, rules_, last_);
    }
    return Standing::kSame;
}

bool WatchedProcess::HasRun() {
    last_.cpuReadAt = Clock::now();
    const std::optional<nanoseconds> before = std::exchange(last_.cpuTime, cpuClock_.Read());
    return !last_.cpuTime || last_.cpuTime != before;
}

// Reading PSS walks the process's page tables under its lock, some milliseconds for a gigabyte; RSS is a
// number that the kernel has, and never smaller.
std::optional<int64_t> WatchedProcess::ReadMemoryKiB() {
    Buffer buffer;
    const std::optional<int64_t> pages = ResidentPagesOf(Readable(ReadOpenFile(statm_, buffer), "statm"));
    if (!pages || *pages > kMostPages) {
        return std::nullopt;
    }
    const int64_t residentKiB = *pages * kPageKiB;
    if (residentKiB <= smallestMemoryQuota_) {
        return residentKiB;
    }
    const auto rollup = ReadProcessFile(pid_, "smaps_rollup", buffer);
    return NumberOfLine(Readable(rollup, "smaps_rollup"), "Pss:");
}

std::optional<int64_t> WatchedProcess::ReadWrittenBytes() {
    Buffer buffer;
    return NumberOfLine(Readable(ReadOpenFile(io_, buffer), "io"), "write_bytes:");
}

WatchedProcess::Standing WatchedProcess::CurrentStanding() const {
    Buffer buffer;
    const Result<std::string_view> commandLine = ReadOpenFile(cmdline_, buffer);
    if (!commandLine) {
        return Standing::kGone;
    }
    return ProcessNameOf(*commandLine) == name_ ? Standing::kSame : Standing::kRenamed;
}

std::string_view WatchedProcess::Readable(const Result<std::string_view>& text, const char* name) {
    if (!text) {
        WarnUnreadable(name, text.Code());
    }
    return text ? *text : std::string_view();
}

// Once for each process: without a word its quotas would never apply, with one per sample the log would fill.
void WatchedProcess::WarnUnreadable(const char* name, const std::error_code& error) {
    if (MeansGone(error) || warnedUnreadable_) {
        return;
    }
    warnedUnreadable_ = true;
    PLATFORM_LOGW(
        "process %{public}d, %{public}s, cannot be measured: /proc/%{public}d/%{public}s: %{public}s", pid_,
        name_.c_str(), pid_, name, error.message().c_str());
}

std::vector<Report> WatchedProcess::TakeReports(const std::function<bool(const ReportKey&)>& isOnTheWay) {
    const std::vector<Breach> breaches = windows_.TakeBreaches([&](Resource resource) {
        return isOnTheWay({pid_, startTime_, resource});
    });
    if (breaches.empty() || (!isVerified_ && CurrentStanding() != Standing::kSame)) {
        return {};
    }
    Buffer buffer;
    const std::optional<int64_t> uid =
        NumberOfLine(Readable(ReadProcessFile(pid_, "status", buffer), "status"), "Uid:");
    if (!uid) {
        return {};
    }
    const auto uidNumber = static_cast<int32_t>(*uid);
    const int32_t generalType = GeneralTypeOf(uidNumber, pid_);
    std::vector<Report> reports;
    reports.reserve(breaches.size());
    for (const Breach& breach : breaches) {
        reports.push_back(ReportOf(breach, uidNumber, generalType));
    }
    return reports;
}

Report WatchedProcess::ReportOf(const Breach& breach, int32_t uid, int32_t generalType) const {
    constexpr int32_t kGeneralTypeFactor = 1000;
    const Kelvra::ResQuotaInfo& quota = breach.rule->quota;
    PLATFORM_LOGI(
        "%{public}s, pid %{public}d, breaks its %{public}s quota: %{public}ld measured, quota %{public}ld",
        name_.c_str(), pid_, quota.resType.c_str(), breach.measured, quota.resource);
    Report report;
    report.key = {pid_, startTime_, breach.rule->resource};
    report.info.duration = quota.duration;
    report.info.resource = breach.measured;
    report.info.uid = uid;
    report.info.pid = pid_;
    report.info.id = quota.id;
    report.info.processType = kGeneralTypeFactor * generalType;
    report.info.action = quota.action;
    report.info.resType = quota.resType;
    report.info.processName = quota.processName;
    report.info.conditions = quota.conditions;
    report.info.startTime = startTime_;
    report.info.sampleTime = Clock::now().time_since_epoch().count();  // the monotonic clock
    return report;
}

}  // namespace KITE::Linux::Sampling
