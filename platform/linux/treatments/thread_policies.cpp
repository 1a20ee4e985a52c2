#include "treatments/thread_policies.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "base/result.h"
#include "proc/process_list.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

std::optional<ThreadPolicy> ReadPolicy(pid_t pid, pid_t tid) {
    const Result<ProcessStat> stat = ReadThreadStat(pid, tid);
    SchedulingAttributes attributes;
    if (!stat || syscall(SYS_sched_getattr, tid, &attributes, sizeof(attributes), 0) != 0) {
        return std::nullopt;
    }
    return ThreadPolicy{tid, stat->startTime, attributes};
}

ThreadPolicy MainThreadPolicy(pid_t pid, const std::vector<ThreadPolicy>& policies) {
    const auto main = std::ranges::find(policies, pid, &ThreadPolicy::tid);
    return main == policies.end() ? ThreadPolicy{} : *main;
}

}  // namespace

bool ThreadPolicy::IsIdle() const {
    return attributes.policy == SCHED_IDLE;
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

std::error_code SetPolicy(pid_t pid, const ThreadPolicy& thread) {
    const Result<ProcessStat> stat = ReadThreadStat(pid, thread.tid);
    if (!stat || stat->startTime != thread.startTime) {
        return ErrorOf(ESRCH);
    }
    const bool isSet = syscall(SYS_sched_setattr, thread.tid, &thread.attributes, 0) == 0;
    return isSet ? std::error_code() : LastError();
}

std::error_code SetIdlePolicy(pid_t pid, const ThreadPolicy& thread) {
    // Without the flag for a reset on fork: the children are to be idle too.
    return SetPolicy(pid,
                     {thread.tid, thread.startTime, {.policy = SCHED_IDLE, .nice = thread.attributes.nice}});
}

std::error_code RestorePolicies(pid_t pid, const std::vector<ThreadPolicy>& saved) {
    const ThreadPolicy ofNewThreads = MainThreadPolicy(pid, saved);
    std::error_code firstError;
    bool isStable = false;
    for (int round = 0; round < kMostPolicyRounds && !isStable; ++round) {
        const std::vector<ThreadPolicy> threads = ReadThreadPolicies(pid);
        isStable = !threads.empty();
        for (const ThreadPolicy& thread : threads) {
            const auto own = std::ranges::find_if(
                saved, [&](const ThreadPolicy& other) { return other.IsSameThread(thread); });
            const ThreadPolicy& wanted = own == saved.end() ? ofNewThreads : *own;
            if (!thread.IsIdle() || wanted.IsIdle()) {
                continue;
            }
            const std::error_code error = SetPolicy(pid, wanted.For(thread));
            firstError = firstError || Is(error, ESRCH) ? firstError : error;
            isStable = isStable && error;
        }
    }
    return !firstError && !isStable ? ErrorOf(EAGAIN) : firstError;
}

}  // namespace KITE::Linux
