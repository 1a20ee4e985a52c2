#include "kelvra_manager/manager/watched_process.h"

#include <array>
#include <optional>
#include <utility>

#include "base/text.h"
#include "device/device_state.h"
#include "proc/process_file.h"
#include "proc/program.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

WatchedProcess::WatchedProcess(pid_t pid, int64_t startTime, UniqueFd cmdline, std::string_view name,
                               std::span<const Rule> rules)
    : pid_(pid),
      startTime_(startTime),
      name_(name),
      cmdline_(std::move(cmdline)),
      rules_(rules),
      meter_(pid, name, rules),
      windows_(rules) {
    // The service's own check takes the name behind the last slash of all arguments.
    const std::string commandLine = ReadFile(cmdline_.Get()).ValueOr({});
    const std::string_view seen = SeenNameOf(commandLine);
    if (ProcessNameOf(commandLine) == name_ && !IsAcceptedAs(seen, name_)) {
        PLATFORM_LOGW(
            "the quota service will refuse every report of process %{public}d, %{public}s: a slash in its "
            "arguments makes the service see the name \"%{public}s\"",
            pid_, name_.c_str(), Printable(seen).c_str());
    }
}

bool WatchedProcess::IsSame() const {
    std::array<char, kCommandLineBuffer> buffer;
    const Result<std::string_view> commandLine = ReadOpenFile(cmdline_, buffer);
    return commandLine && ProcessNameOf(*commandLine) == name_;
}

bool WatchedProcess::Sample(TimePoint at, SampleRecorder* recorder) {
    const Readings readings = meter_.Read(at);
    if (!IsSame()) {
        return false;
    }
    windows_.Add(readings);
    if (recorder != nullptr) {
        recorder->Add(pid_, startTime_, name_, rules_, readings);
    }
    return true;
}

std::vector<Report> WatchedProcess::TakeReports(const Reporter& reporter) {
    const std::vector<Breach> breaches = windows_.TakeBreaches(
        [&](const ResourceType& type) { return reporter.IsOnTheWay(pid_, startTime_, type.name); });
    if (breaches.empty()) {
        return {};
    }
    const std::optional<int64_t> uid = meter_.ReadUid();
    if (!uid || !IsSame()) {
        return {};
    }
    std::vector<Report> reports;
    reports.reserve(breaches.size());
    for (const Breach& breach : breaches) {
        reports.push_back(ReportOf(breach, static_cast<int32_t>(*uid)));
    }
    return reports;
}

Report WatchedProcess::ReportOf(const Breach& breach, int32_t uid) const {
    constexpr int32_t kGeneralTypeFactor = 1000;
    const Kelvra::ResQuotaInfo& quota = breach.rule->quota;
    PLATFORM_LOGI(
        "%{public}s, pid %{public}d, breaks its %{public}s quota: %{public}ld measured, quota %{public}ld",
        name_.c_str(), pid_, quota.resType.c_str(), breach.measured, quota.resource);
    Report report;
    report.duration = quota.duration;
    report.resource = breach.measured;
    report.uid = uid;
    report.pid = pid_;
    report.id = quota.id;
    report.processType = kGeneralTypeFactor * GeneralTypeOf(uid, pid_);
    report.action = quota.action;
    report.resType = quota.resType;
    report.processName = quota.processName;
    report.conditions = quota.conditions;
    report.startTime = startTime_;
    report.sampleTime = nanoseconds(Clock::now().time_since_epoch()).count();
    return report;
}

}  // namespace KITE::Linux::Sampling
