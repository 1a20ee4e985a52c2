#include "treatments/idle_family.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <map>

#include "base/unique_fd.h"
#include "proc/pidfd.h"
#include "proc/process_list.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

using Processes = std::map<pid_t, ProcessStat>;

// Fails when a living process cannot be read: its children would be missed.
Result<Processes> ReadProcesses() {
    const Result<std::vector<ListedProcess>> listed = ListProcesses();
    if (!listed) {
        return listed.Why();
    }
    Processes processes;
    for (const auto& [pid, inode] : *listed) {
        const Result<ProcessStat> stat = ReadProcessStat(pid);
        if (!stat && !Is(stat.Code(), ESRCH)) {
            return stat.Why();
        }
        if (stat && !stat->HasEnded()) {
            processes.emplace(pid, *stat);
        }
    }
    // A /proc in which even this process is missing is hidden or another's.
    return processes.contains(getpid()) ? Result(std::move(processes)) : ErrorOf(EIO);
}

bool Descends(const Processes& processes, pid_t pid, pid_t ancestor) {
    auto child = processes.find(pid);
    while (child != processes.end()) {
        const auto parent = processes.find(child->second.parent);
        // The listing took a while: a younger parent is another process that took over the pid.
        if (parent == processes.end() || parent->second.startTime > child->second.startTime) {
            return false;
        }
        if (parent->first == ancestor) {
            return true;
        }
        child = parent->first == pid ? processes.end() : parent;
    }
    return false;
}

bool IsMember(const Processes& processes, const Processes::value_type& process, const IdleFamily& family,
              bool parentLives) {
    const auto& [pid, stat] = process;
    if (stat.startTime < family.since || stat.IsKernelThread() || pid == getpid()) {
        return false;
    }
    if (parentLives) {
        return pid != family.pid && Descends(processes, pid, family.pid);
    }
    return (family.session > 0 && stat.session == family.session) ||
           (family.processGroup > 0 && stat.processGroup == family.processGroup);
}

// Sets `isChanged` when a thread got the policy.
std::error_code RestoreMember(pid_t pid, int64_t startTime, const ThreadPolicy& policy, bool& isChanged) {
    const Result<UniqueFd> pidfd = OpenProcess(pid, startTime);
    if (!pidfd) {
        const bool isGone = Is(pidfd.Code(), ESRCH) || Is(pidfd.Code(), EINVAL);
        return isGone ? std::error_code() : pidfd.Code();
    }
    std::error_code firstError;
    const std::vector<ThreadPolicy> threads = ReadThreadPolicies(pid);
    for (const ThreadPolicy& thread : threads) {
        // While the process lives, what was read was its own.
        if (!thread.IsIdle() || HasExited(pidfd->Get())) {
            continue;
        }
        const std::error_code error = SetPolicy(pid, policy.For(thread));
        isChanged = isChanged || !error;
        firstError = firstError || Is(error, ESRCH) ? firstError : error;
    }
    return firstError;
}

}  // namespace

Result<IdleFamily> BeginIdleFamily(pid_t pid) {
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    if (!stat) {
        return stat.Why();
    }
    timespec now{};
    if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return LastError();
    }
    constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
    const int64_t ticksPerSecond = sysconf(_SC_CLK_TCK);
    const int64_t ticks = now.tv_sec * ticksPerSecond + now.tv_nsec * ticksPerSecond / kNanosecondsPerSecond;
    return IdleFamily{
        .pid = pid, .session = stat->session, .processGroup = stat->processGroup, .since = ticks};
}

std::error_code RestoreFamily(const IdleFamily& family, bool parentLives, const ThreadPolicy& policy,
                              const ProcessKeys& except) {
    std::error_code firstError;
    // A member that is still idle may have had a child while the others were looked at.
    bool isStable = policy.IsIdle();
    for (int round = 0; round < kMostPolicyRounds && !isStable; ++round) {
        const Result<Processes> processes = ReadProcesses();
        if (!processes) {
            return processes.Code();
        }
        isStable = true;
        for (const auto& process : *processes) {
            const auto& [pid, stat] = process;
            if (except.contains({pid, stat.startTime}) ||
                !IsMember(*processes, process, family, parentLives)) {
                continue;
            }
            bool isChanged = false;
            const std::error_code error = RestoreMember(pid, stat.startTime, policy, isChanged);
            firstError = firstError ? firstError : error;
            isStable = isStable && !isChanged;
        }
    }
    return !firstError && !isStable ? ErrorOf(EAGAIN) : firstError;
}

}  // namespace KITE::Linux
