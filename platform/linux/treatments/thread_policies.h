#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <utility>
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

// Gives every thread that is still idle its saved policy, one that was born meanwhile the main thread's. 0,
// the first error, or EAGAIN when threads cannot be listed or new ones keep coming.
int RestorePolicies(pid_t pid, const std::vector<ThreadPolicy>& saved);

// What tells the processes that a process made idle gave birth to: they are idle as it was (the kernel resets
// that on a fork neither by itself nor on request), started after it became so, and descend from it or, once
// it has ended and they are other processes' children, share its session or process group.
struct IdleFamily {
    pid_t pid = 0;
    pid_t session = 0;
    pid_t processGroup = 0;
    int64_t since = 0;  // clock ticks since boot
};

// Pids and start times.
using ProcessKeys = std::set<std::pair<pid_t, int64_t>>;

// The family that a process has from this moment on; 0 or an error number.
int BeginIdleFamily(pid_t pid, IdleFamily& family);
// Gives each process of the family the policy but the excepted ones. `isThere` says whether the one they come
// from still lives. A child that left the session, and whose parents have ended, is not found; nor is one
// told apart from a process of the same session that became idle by its own wish. 0 or the first error, or
// EAGAIN when new ones keep coming.
int RestoreFamily(const IdleFamily& family, bool isThere, const ThreadPolicy& policy,
                  const ProcessKeys& except);

}  // namespace KITE::Linux
