#include "treatments/idle_threads.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>

#include "base/unique_fd.h"
#include "proc/process_list.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

using Processes = std::map<pid_t, ProcessStat>;

std::optional<ThreadPolicy> ReadPolicy(pid_t pid, pid_t tid) {
    const Result<ProcessStat> stat = ReadThreadStat(pid, tid);
    SchedulingAttributes attributes;
    if (!stat || syscall(SYS_sched_getattr, tid, &attributes, sizeof(attributes), 0) != 0) {
        return std::nullopt;
    }
    return ThreadPolicy{tid, stat->startTime, attributes};
}

// Succeeds for a thread that has gone.
std::error_code SetPolicy(pid_t pid, const ThreadPolicy& thread, const SchedulingAttributes& attributes) {
    const Result<ProcessStat> stat = ReadThreadStat(pid, thread.tid);
    if (!stat) {
        return Is(stat.Code(), ESRCH) ? std::error_code() : stat.Code();
    }
    const bool isDone = stat->startTime != thread.startTime ||
                        syscall(SYS_sched_setattr, thread.tid, &attributes, 0) == 0 || errno == ESRCH;
    return isDone ? std::error_code() : LastError();
}

SchedulingAttributes OfMainThread(pid_t pid, const std::vector<ThreadPolicy>& policies) {
    const auto main = std::ranges::find(policies, pid, &ThreadPolicy::tid);
    return main == policies.end() ? SchedulingAttributes{} : main->attributes;
}

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

bool IsMember(const Processes& processes, const Processes::value_type& process, pid_t parent,
              const IdleFamily& family, bool parentLives) {
    const auto& [pid, stat] = process;
    if (stat.startTime < family.since || stat.IsKernelThread() || pid == getpid()) {
        return false;
    }
    if (parentLives) {
        return pid != parent && Descends(processes, pid, parent);
    }
    return (family.session > 0 && stat.session == family.session) ||
           (family.processGroup > 0 && stat.processGroup == family.processGroup);
}

std::error_code RestoreMember(pid_t pid, int64_t startTime, const SchedulingAttributes& attributes) {
    const Result<UniqueFd> pidfd = OpenProcess(pid, startTime);
    if (!pidfd) {
        return Is(pidfd.Code(), ESRCH) ? std::error_code() : pidfd.Code();
    }
    return RestorePolicies(pid, pidfd->Get(), {{pid, startTime, attributes}});
}

}  // namespace

std::vector<ThreadPolicy> ReadThreadPolicies(pid_t pid) {
    std::vector<ThreadPolicy> policies;
    for (const pid_t tid : ListThreads(pid)) {
        if (const std::optional<ThreadPolicy> policy = ReadPolicy(pid, tid)) {
            policies.push_back(*policy);
        }
    }
    return policies;
}

std::error_code MakeIdle(pid_t pid, const std::vector<ThreadPolicy>& threads) {
    std::error_code firstError;
    for (const ThreadPolicy& thread : threads) {
        // Without the flag for a reset on fork: the children are to be idle too.
        const std::error_code error =
            SetPolicy(pid, thread, {.policy = SCHED_IDLE, .nice = thread.attributes.nice});
        firstError = firstError ? firstError : error;
    }
    return firstError;
}

std::error_code RestorePolicies(pid_t pid, int pidfd, const std::vector<ThreadPolicy>& saved) {
    const ThreadPolicy ofNewThreads{.attributes = OfMainThread(pid, saved)};
    std::error_code firstError;
    bool isStable = false;
    for (int round = 0; round < kMostPolicyRounds && !isStable; ++round) {
        const std::vector<ThreadPolicy> threads = ReadThreadPolicies(pid);
        // If the process lives now, its pid has meant no other up to here.
        if (HasExited(pidfd)) {
            return {};
        }
        isStable = !threads.empty();
        for (const ThreadPolicy& thread : threads) {
            const auto own = std::ranges::find_if(
                saved, [&](const ThreadPolicy& other) { return other.IsSameThread(thread); });
            const ThreadPolicy& wanted = own == saved.end() ? ofNewThreads : *own;
            if (!thread.IsIdle() || wanted.IsIdle()) {
                continue;
            }
            const std::error_code error = SetPolicy(pid, thread, wanted.attributes);
            firstError = firstError ? firstError : error;
            isStable = isStable && error;
        }
    }
    return !firstError && !isStable ? ErrorOf(EAGAIN) : firstError;
}

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
    return IdleFamily{.session = stat->session, .processGroup = stat->processGroup, .since = ticks};
}

std::error_code RestoreFamily(pid_t pid, const IdleFamily& family, bool parentLives,
                              const std::vector<ThreadPolicy>& saved, const ProcessKeys& except) {
    const SchedulingAttributes attributes = OfMainThread(pid, saved);
    std::error_code firstError;
    // A member that is still idle may have had a child while the others were looked at.
    bool isStable = attributes.policy == SCHED_IDLE;
    for (int round = 0; round < kMostPolicyRounds && !isStable && !firstError; ++round) {
        const Result<Processes> processes = ReadProcesses();
        if (!processes) {
            return processes.Code();
        }
        isStable = true;
        for (const auto& process : *processes) {
            const ProcessKey key(process.first, process.second.startTime);
            if (!except.contains(key) && IsMember(*processes, process, pid, family, parentLives) &&
                std::ranges::any_of(ReadThreadPolicies(key.first), &ThreadPolicy::IsIdle)) {
                isStable = false;
                const std::error_code error = RestoreMember(key.first, key.second, attributes);
                firstError = firstError ? firstError : error;
            }
        }
    }
    return !firstError && !isStable ? ErrorOf(EAGAIN) : firstError;
}

}  // namespace KITE::Linux
