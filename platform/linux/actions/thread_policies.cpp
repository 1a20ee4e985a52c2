#include "actions/thread_policies.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "actions/proc_stat.h"

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
    const std::optional<ProcStat> stat = ReadThreadStat(pid, tid);
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

}  // namespace

bool ThreadPolicy::IsIdle() const {
    return policy == SCHED_IDLE;
}

std::vector<ThreadPolicy> ReadThreadPolicies(pid_t pid) {
    std::vector<ThreadPolicy> policies;
    for (const pid_t tid : ThreadsOf(pid)) {
        if (const std::optional<ThreadPolicy> policy = ReadPolicy(pid, tid)) {
            policies.push_back(*policy);
        }
    }
    return policies;
}

int SetPolicy(pid_t pid, const ThreadPolicy& thread) {
    const std::optional<ProcStat> stat = ReadThreadStat(pid, thread.tid);
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
        isStable = true;
        for (const ThreadPolicy& thread : ReadThreadPolicies(pid)) {
            const auto own = std::ranges::find_if(
                saved, [&](const ThreadPolicy& other) { return other.IsSameThread(thread); });
            ThreadPolicy wanted = own == saved.end() ? ofNewThreads : *own;
            wanted.tid = thread.tid;
            wanted.startTime = thread.startTime;
            if (!thread.IsIdle() || wanted.IsIdle()) {
                continue;
            }
            const int error = SetPolicy(pid, wanted);
            firstError = firstError != 0 || error == ESRCH ? firstError : error;
            isStable = isStable && error != 0;
        }
    }
    return firstError;
}

}  // namespace KITE::Linux
