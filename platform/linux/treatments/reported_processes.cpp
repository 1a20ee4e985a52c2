#include "treatments/reported_processes.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "base/text.h"
#include "proc/command_line.h"
#include "proc/pidfd.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

Failure Differs(const std::string& how) {
    return {how, ErrorOf(ESRCH)};
}

}  // namespace

Result<void> ReportedProcess::Verify(const std::string& requestedName) const {
    if (requestedName != name_) {
        return Differs("it was reported as " + Printable(name_));
    }
    const pid_t pid = key_.first;
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    const std::string name = ReadProcessName(pid);
    const std::optional<ExecutableIdentity> executable = ReadExecutableIdentity(pid);
    // Looked at last: while the process lives, its pid means no other, so that all was read of this one.
    if (HasExited(Pidfd())) {
        return Differs("it has ended");
    }
    if (!stat) {
        return Differs("it cannot be looked at");
    }
    if (name != name_) {
        return Differs("its name is now " + Printable(name));
    }
    if (executable != executable_) {
        return Differs("it executes another program by now");
    }
    return {};
}

bool ReportedProcess::Is(const ProcessKey& key, const std::string& name,
                         const ExecutableIdentity& executable) const {
    return key_ == key && name_ == name && executable_ == executable;
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
    const auto known = entries_.find(pid);
    if (known != entries_.end() && known->second.process->Is({pid, startTime}, name, *executable)) {
        return Keep(known->second.process, std::move(brokenQuota));
    }
    Result<asio::posix::stream_descriptor> watched = watcher_.Watch(std::move(*pidfd), pid);
    if (!watched) {
        return watched.Why();
    }
    return Keep(
        std::make_shared<ReportedProcess>(std::move(*watched), ProcessKey(pid, startTime), name, *executable),
        std::move(brokenQuota));
}

ReportedProcessPtr ReportedProcesses::Keep(ReportedProcessPtr process, BrokenQuota brokenQuota) {
    entries_[process->Key().first] = {process, ++lastReport_, std::move(brokenQuota)};
    MakeRoom();
    return process;
}

void ReportedProcesses::MakeRoom() {
    while (entries_.size() > capacity_) {
        auto oldest = entries_.end();
        for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
            // Copies are made under the lock only, so that a single owner stays single.
            const bool isHeld = entry->second.process.use_count() > 1;
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

BrokenQuota ReportedProcesses::LastBrokenQuota(pid_t pid) const {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(pid);
    return entry == entries_.end() ? BrokenQuota{} : entry->second.brokenQuota;
}

void ReportedProcesses::DropExited(pid_t pid) {
    const std::lock_guard lock(mutex_);
    const auto entry = entries_.find(pid);
    if (entry != entries_.end() && HasExited(entry->second.process->Pidfd())) {
        entries_.erase(entry);
    }
}

}  // namespace KITE::Linux
