#include "treatments/reported_processes.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
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
    const auto& [pid, startTime] = key_;
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    const std::string name = ReadProcessName(pid);
    const std::optional<ExecutableIdentity> executable = ReadExecutableIdentity(pid);
    // Looked at last: a process that lives now has lived during all the reads.
    if (HasExited(Pidfd())) {
        return Differs("it has ended");
    }
    if (!stat) {
        return Differs("it cannot be looked at");
    }
    if (stat->startTime != startTime) {
        return Differs("its start time differs from the reported one");
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
    const pid_t pid = process->Key().first;
    const auto [place, isNew] = entries_.try_emplace(pid);
    if (!isNew) {
        byAge_.erase(place->second.order);
    }
    place->second = {process, nextOrder_++, std::move(brokenQuota)};
    byAge_.emplace(place->second.order, pid);
    MakeRoom();
    return process;
}

void ReportedProcesses::MakeRoom() {
    for (auto oldest = byAge_.begin(); entries_.size() > capacity_ && oldest != byAge_.end();) {
        const auto entry = entries_.find(oldest->second);
        // Copies are made under the lock only, so that a single owner stays single.
        const bool isHeld = entry->second.process.use_count() > 1;
        const bool isNewest = std::next(oldest) == byAge_.end();
        if (isHeld || isNewest) {
            ++oldest;
        } else {
            entries_.erase(entry);
            oldest = byAge_.erase(oldest);
        }
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
        byAge_.erase(entry->second.order);
        entries_.erase(entry);
    }
}

}  // namespace KITE::Linux
