#include "treatments/reported_processes.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "base/text.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

Failure Differs(const std::string& how) {
    return Failure(how, ErrorOf(ESRCH));
}

}  // namespace

Result<void> ReportedProcess::Verify(const std::string& requestedName) const {
    if (requestedName != name) {
        return Differs("it was reported as " + Printable(name));
    }
    const pid_t pid = key.first;
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    const std::string nameNow = ReadProcessName(pid);
    const std::optional<ExecutableIdentity> executableNow = ReadExecutableIdentity(pid);
    // Looked at last: while the process lives, its pid means no other, so that all was read of this one.
    if (HasExited(pidfd)) {
        return Differs("it has ended");
    }
    if (!stat) {
        return Differs("it cannot be looked at");
    }
    if (nameNow != name) {
        return Differs("its name is now " + Printable(nameNow));
    }
    if (executableNow != executable) {
        return Differs("it executes another program by now");
    }
    return {};
}

size_t ReportedProcesses::UsualCapacity() {
    constexpr size_t kMost = 4096;
    rlimit limit{};
    const bool isKnown = getrlimit(RLIMIT_NOFILE, &limit) == 0;
    return isKnown ? std::clamp<size_t>(limit.rlim_cur / 2, 1, kMost) : 1;
}

Result<ReportedProcessPtr> ReportedProcesses::Remember(pid_t pid, int64_t startTime, const std::string& name,
                                                       BrokenQuota brokenQuota) {
    Result<UniqueFd> pidfd = OpenProcess(pid, startTime);
    if (Is(pidfd.Code(), ESRCH)) {
        return Differs("it has gone or is another process");
    }
    if (!pidfd) {
        return pidfd.Why();
    }
    const std::optional<ExecutableIdentity> executable = ReadExecutableIdentity(pid);
    if (!executable || HasExited(pidfd->Get())) {
        return Differs("its program cannot be read");
    }
    // The watcher must not find it missing here when it ends at once.
    const std::lock_guard lock(mutex_);
    const ProcessKey key(pid, startTime);
    const auto known = entries_.find(pid);
    std::shared_ptr<asio::posix::stream_descriptor> owner;
    if (known != entries_.end() && known->second.process->key == key) {
        owner = known->second.process->owner;
    } else {
        auto watched = watcher_.Watch(std::move(*pidfd), pid);
        if (!watched) {
            return watched.Why();
        }
        owner = std::move(*watched);
    }
    const int number = owner->native_handle();
    auto process = std::make_shared<const ReportedProcess>(
        ReportedProcess{number, std::move(owner), key, name, *executable, std::move(brokenQuota)});
    entries_[pid] = {process, ++lastReport_};
    MakeRoom();
    return Result<ReportedProcessPtr>(std::move(process));
}

void ReportedProcesses::MakeRoom() {
    while (entries_.size() > capacity_) {
        auto oldest = entries_.end();
        for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
            // Copies are made under the lock only, so that a single owner stays single.
            const ReportedProcessPtr& process = entry->second.process;
            const bool isHeld = process.use_count() > 1 || process->owner.use_count() > 1;
            if (!isHeld && (oldest == entries_.end() || entry->second.report < oldest->second.report)) {
                oldest = entry;
            }
        }
        if (oldest == entries_.end()) {
            return;
        }
        entries_.erase(oldest);
    }
}

ReportedProcessPtr ReportedProcesses::Find(pid_t pid) const {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(pid);
    return entry == entries_.end() ? nullptr : entry->second.process;
}

void ReportedProcesses::DropExited(pid_t pid) {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(pid);
    if (entry != entries_.end() && HasExited(entry->second.process->pidfd)) {
        entries_.erase(entry);
    }
}

}  // namespace KITE::Linux
