#include "treatments/reported_processes.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "base/text.h"
#include "proc/command_line.h"
#include "proc/pidfd.h"
#include "proc/process_stat.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

std::string ProcessHandle::Difference(const std::string& requestedName) const {
    if (requestedName != name_) {
        return "it was reported as " + Printable(name_);
    }
    const Result<ProcessStat> stat = ReadProcessStat(pid_);
    const std::string name = ReadProcessName(pid_);
    const std::optional<ExecutableIdentity> executable = ReadExecutableIdentity(pid_);
    // Looked at last: a process that is there now was there during all the reads.
    if (HasExited(Pidfd())) {
        return "it has ended";
    }
    if (!stat) {
        return "it cannot be looked at";
    }
    if (stat->startTime != startTime_) {
        return "its start time differs from the reported one";
    }
    if (name != name_) {
        return "its name is now " + Printable(name);
    }
    return executable == executable_ ? "" : "it executes another program by now";
}

bool ProcessHandle::IsSameAs(const ProcessHandle& other) const {
    return pid_ == other.pid_ && startTime_ == other.startTime_ && name_ == other.name_ &&
           executable_ == other.executable_;
}

size_t ReportedProcesses::UsualCapacity() {
    constexpr size_t kMost = 4096;
    rlimit limit{};
    const bool isKnown = getrlimit(RLIMIT_NOFILE, &limit) == 0;
    return isKnown ? std::clamp<size_t>(limit.rlim_cur / 2, 1, kMost) : 1;
}

ProcessHandlePtr ReportedProcesses::Remember(pid_t pid, int64_t startTime, const std::string& name,
                                             BrokenQuota brokenQuota) {
    Result<UniqueFd> pidfd = OpenProcess(pid, startTime);
    if (!pidfd) {
        const bool isGone = pidfd.Code() == ErrorOf(ESRCH);
        PLATFORM_LOGE("no handle of reported pid %{public}d (%{public}s): %{public}s", pid,
                      Printable(name).c_str(),
                      isGone ? "gone or another process" : pidfd.Why().Text().c_str());
        return nullptr;
    }
    const std::optional<ExecutableIdentity> executable = ReadExecutableIdentity(pid);
    if (!executable || HasExited(pidfd->Get())) {
        PLATFORM_LOGE("no handle of reported pid %{public}d (%{public}s): its program cannot be read", pid,
                      Printable(name).c_str());
        return nullptr;
    }
    return Keep(std::make_shared<ProcessHandle>(std::move(*pidfd), pid, startTime, name, *executable),
                std::move(brokenQuota));
}

ProcessHandlePtr ReportedProcesses::Keep(ProcessHandlePtr handle, BrokenQuota brokenQuota) {
    const std::lock_guard lock(mutex_);
    const pid_t pid = handle->Pid();
    const auto [place, isNew] = entries_.try_emplace(pid);
    Entry& entry = place->second;
    if (!isNew) {
        byAge_.erase(entry.order);
    }
    if (isNew || !entry.handle->IsSameAs(*handle)) {
        entry.handle = std::move(handle);
    }
    entry.brokenQuota = std::move(brokenQuota);
    entry.order = nextOrder_++;
    byAge_.emplace(entry.order, pid);
    ProcessHandlePtr kept = entry.handle;
    MakeRoom();
    return kept;
}

void ReportedProcesses::MakeRoom() {
    for (auto oldest = byAge_.begin(); entries_.size() > capacity_ && oldest != byAge_.end();) {
        const auto entry = entries_.find(oldest->second);
        // Copies are made under the lock only, so that a single owner stays single.
        const bool isHeld = entry->second.handle.use_count() > 1;
        const bool isNewest = std::next(oldest) == byAge_.end();
        if (isHeld || isNewest) {
            ++oldest;
        } else {
            entries_.erase(entry);
            oldest = byAge_.erase(oldest);
        }
    }
}

ProcessHandlePtr ReportedProcesses::Find(pid_t pid) const {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(pid);
    return entry == entries_.end() ? nullptr : entry->second.handle;
}

BrokenQuota ReportedProcesses::LastBrokenQuota(pid_t pid) const {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(pid);
    return entry == entries_.end() ? BrokenQuota{} : entry->second.brokenQuota;
}

void ReportedProcesses::DropExited(pid_t pid) {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(pid);
    if (entry != entries_.end() && HasExited(entry->second.handle->Pidfd())) {
        byAge_.erase(entry->second.order);
        entries_.erase(entry);
    }
}

}  // namespace KITE::Linux
