#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

// Scheduling policies of threads.
namespace KITE::Linux {

// How one thread was scheduled. The start time tells it from a later one of the same id.
struct ThreadPolicy {
    pid_t tid = 0;
    int64_t startTime = 0;
    uint32_t policy = 0;
    uint64_t flags = 0;
    int32_t nice = 0;
    uint32_t priority = 0;
    uint64_t runtimeNs = 0;
    uint64_t deadlineNs = 0;
    uint64_t periodNs = 0;

    bool IsIdle() const;
    bool IsSameThread(const ThreadPolicy& other) const {
        return tid == other.tid && startTime == other.startTime;
    }
};

// How each thread of the process is scheduled; threads that vanish meanwhile are left out.
std::vector<ThreadPolicy> ReadThreadPolicies(pid_t pid);

// Give one thread of the process a policy: 0 or an error number, ESRCH when it has gone.
int SetIdlePolicy(pid_t pid, const ThreadPolicy& thread);
int SetPolicy(pid_t pid, const ThreadPolicy& thread);

// Gives every thread that is still idle its saved policy, one that was born meanwhile the main thread's. 0 or
// the first error.
int RestorePolicies(pid_t pid, const std::vector<ThreadPolicy>& saved);

}  // namespace KITE::Linux
