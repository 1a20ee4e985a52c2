#pragma once

#include <sys/types.h>

#include <cstdint>
#include <system_error>
#include <vector>

// Scheduling policies of threads. Any thread.
namespace KITE::Linux {

// As the kernel's sched_getattr and sched_setattr have it; the kernel's header cannot be included next to the
// C library's.
struct SchedulingAttributes {
    uint32_t size = 48;  // of this struct
    uint32_t policy = 0;
    uint64_t flags = 0;
    int32_t nice = 0;
    uint32_t priority = 0;
    uint64_t runtimeNs = 0;
    uint64_t deadlineNs = 0;
    uint64_t periodNs = 0;
};
static_assert(sizeof(SchedulingAttributes) == 48);

// How one thread was scheduled. The start time tells it from a later one of the same id.
struct ThreadPolicy {
    pid_t tid = 0;
    int64_t startTime = 0;
    SchedulingAttributes attributes = {};

    bool IsIdle() const;
    bool IsSameThread(const ThreadPolicy& other) const {
        return tid == other.tid && startTime == other.startTime;
    }
    // The same attributes, for another thread.
    ThreadPolicy For(const ThreadPolicy& thread) const { return {thread.tid, thread.startTime, attributes}; }
};

// Threads may be born while they are looked at. So they are looked at again until there is nothing to be
// done, and this often at most.
inline constexpr int kMostPolicyRounds = 50;

// How each thread of the process is scheduled; threads that vanish meanwhile are left out.
std::vector<ThreadPolicy> ReadThreadPolicies(pid_t pid);

// Give one thread of the process a policy; ESRCH when the thread has gone.
std::error_code SetIdlePolicy(pid_t pid, const ThreadPolicy& thread);
std::error_code SetPolicy(pid_t pid, const ThreadPolicy& thread);

// Gives every thread that is still idle its saved policy, one that was born meanwhile the main thread's. The
// first error, or EAGAIN when threads cannot be listed or new ones keep coming.
std::error_code RestorePolicies(pid_t pid, const std::vector<ThreadPolicy>& saved);

}  // namespace KITE::Linux
