#include "treatments/thread_policies.h"

#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>

#include "base/unique_fd.h"
#include "proc/pidfd.h"
#include "proc/process_list.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

// The kernel's struct; its header cannot be included next to the C library's.
struct SchedulingAttributes {
    uint32_t size;
    uint32_t policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime;
    uint64_t deadline;
    uint64_t period;
};
static_assert(sizeof(SchedulingAttributes) == 48);

constexpr int kMostRounds = 50;

std::optional<ThreadPolicy> ReadPolicy(pid_t pid, pid_t tid) {
    const Result<ProcessStat> stat = ReadThreadStat(pid, tid);
    SchedulingAttributes attributes{};
    if (!stat || syscall(SYS_sched_getattr, tid, &attributes, sizeof(attributes), 0) != 0) {
        return std::nullopt;
    }
    return ThreadPolicy{.tid = tid,
                        .startTime = stat->startTime,
                        .policy = attributes.policy,
                        .flags = attributes.flags,
                        .nice = attributes.nice,
                        .priority = attributes.priority,
                        .runtimeNs = attributes.runtime,
                        .deadlineNs = attributes.deadline,
                        .periodNs = attributes.period};
}

ThreadPolicy ForThread(ThreadPolicy policy, const ThreadPolicy& thread) {
    policy.tid = thread.tid;
    policy.startTime = thread.startTime;
    return policy;
}

int ReadProcesses(std::map<pid_t, ProcessStat>& processes) {
    const Result<std::vector<ListedProcess>> listed = ListProcesses();
    if (!listed) {
        return listed.Code().value();
    }
    for (const auto& [pid, inode] : *listed) {
        const Result<ProcessStat> stat = ReadProcessStat(pid);
        if (!stat && stat.Code() != ErrorOf(ESRCH)) {
            return stat.Code().value();
        }
        if (stat && !stat->HasEnded()) {
            processes.emplace(pid, *stat);
        }
    }
    // A listing without this process is none of all.
    return processes.contains(getpid()) ? 0 : EIO;
}

bool Descends(const std::map<pid_t, ProcessStat>& processes, pid_t pid, pid_t ancestor) {
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

bool IsOfFamily(const std::map<pid_t, ProcessStat>& processes, pid_t pid, const IdleFamily& family,
                bool isThere) {
    if (isThere) {
        return pid != family.pid && Descends(processes, pid, family.pid);
    }
    const ProcessStat& stat = processes.at(pid);
    return (family.session > 0 && stat.session == family.session) ||
           (family.processGroup > 0 && stat.processGroup == family.processGroup);
}

int RestoreMember(pid_t pid, int64_t startTime, const ThreadPolicy& policy, bool& isChanged) {
    const Result<UniqueFd> pidfd = OpenProcess(pid, startTime);
    if (!pidfd) {
        const int error = pidfd.Code().value();
        return error == ESRCH || error == EINVAL ? 0 : error;
    }
    int firstError = 0;
    const std::vector<ThreadPolicy> threads = ReadThreadPolicies(pid);
    for (const ThreadPolicy& thread : threads) {
        // What was read was this process's, and its threads are told from later ones by their start times.
        if (!thread.IsIdle() || HasExited(pidfd->Get())) {
            continue;
        }
        const int error = SetPolicy(pid, ForThread(policy, thread));
        isChanged = isChanged || error == 0;
        firstError = firstError != 0 || error == ESRCH ? firstError : error;
    }
    return firstError;
}

}  // namespace

bool ThreadPolicy::IsIdle() const {
    return policy == SCHED_IDLE;
}

std::vector<ThreadPolicy> ReadThreadPolicies(pid_t pid) {
    std::vector<ThreadPolicy> policies;
    for (const pid_t tid : ListThreads(pid)) {
        if (const std::optional<ThreadPolicy> policy = ReadPolicy(pid, tid)) {
            policies.push_back(*policy);
        }
    }
    return policies;
}

int SetPolicy(pid_t pid, const ThreadPolicy& thread) {
    const Result<ProcessStat> stat = ReadThreadStat(pid, thread.tid);
    if (!stat || stat->startTime != thread.startTime) {
        return ESRCH;
    }
    SchedulingAttributes attributes{.size = sizeof(SchedulingAttributes),
                                    .policy = thread.policy,
                                    .flags = thread.flags,
                                    .nice = thread.nice,
                                    .priority = thread.priority,
                                    .runtime = thread.runtimeNs,
                                    .deadline = thread.deadlineNs,
                                    .period = thread.periodNs};
    return syscall(SYS_sched_setattr, thread.tid, &attributes, 0) == 0 ? 0 : errno;
}

int SetIdlePolicy(pid_t pid, const ThreadPolicy& thread) {
    // Without the flag that would let its children off.
    return SetPolicy(
        pid, {.tid = thread.tid, .startTime = thread.startTime, .policy = SCHED_IDLE, .nice = thread.nice});
}

int RestorePolicies(pid_t pid, const std::vector<ThreadPolicy>& saved) {
    const auto main = std::ranges::find(saved, pid, &ThreadPolicy::tid);
    const ThreadPolicy ofNewThreads = main == saved.end() ? ThreadPolicy{} : *main;
    int firstError = 0;
    bool isStable = false;
    for (int round = 0; round < kMostRounds && !isStable; ++round) {
        const std::vector<ThreadPolicy> threads = ReadThreadPolicies(pid);
        isStable = !threads.empty();
        for (const ThreadPolicy& thread : threads) {
            const auto own = std::ranges::find_if(
                saved, [&](const ThreadPolicy& other) { return other.IsSameThread(thread); });
            const ThreadPolicy& wanted = own == saved.end() ? ofNewThreads : *own;
            if (!thread.IsIdle() || wanted.IsIdle()) {
                continue;
            }
            const int error = SetPolicy(pid, ForThread(wanted, thread));
            firstError = firstError != 0 || error == ESRCH ? firstError : error;
            isStable = isStable && error != 0;
        }
    }
    return firstError == 0 && !isStable ? EAGAIN : firstError;
}

int BeginIdleFamily(pid_t pid, IdleFamily& family) {
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    timespec now{};
    if (!stat) {
        return stat.Code().value();
    }
    if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) {
        return errno;
    }
    constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
    const int64_t ticksPerSecond = sysconf(_SC_CLK_TCK);
    const int64_t ticks = now.tv_sec * ticksPerSecond + now.tv_nsec * ticksPerSecond / kNanosecondsPerSecond;
    family = {.pid = pid, .session = stat->session, .processGroup = stat->processGroup, .since = ticks};
    return 0;
}

int RestoreFamily(const IdleFamily& family, bool isThere, const ThreadPolicy& policy,
                  const ProcessKeys& except) {
    int firstError = 0;
    bool isStable = policy.IsIdle();
    for (int round = 0; round < kMostRounds && !isStable; ++round) {
        std::map<pid_t, ProcessStat> processes;
        if (const int error = ReadProcesses(processes); error != 0) {
            return error;
        }
        isStable = true;
        for (const auto& [pid, stat] : processes) {
            if (stat.startTime < family.since || stat.IsKernelThread() || pid == getpid() ||
                except.contains({pid, stat.startTime}) || !IsOfFamily(processes, pid, family, isThere)) {
                continue;
            }
            bool isChanged = false;
            const int error = RestoreMember(pid, stat.startTime, policy, isChanged);
            firstError = firstError != 0 ? firstError : error;
            isStable = isStable && !isChanged;
        }
    }
    return firstError == 0 && !isStable ? EAGAIN : firstError;
}

}  // namespace KITE::Linux
