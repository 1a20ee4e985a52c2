#pragma once

#include <sched.h>
#include <sys/types.h>

#include <cstdint>
#include <system_error>
#include <vector>

#include "base/result.h"
#include "proc/pidfd.h"

// How the threads of a process and of its children are made idle, and get back what they had. Any thread.
namespace KITE::Linux {

// The kernel's sched_attr, whose header cannot be included next to the C library's.
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

    bool IsIdle() const { return attributes.policy == SCHED_IDLE; }
    bool IsSameThread(const ThreadPolicy& other) const {
        return tid == other.tid && startTime == other.startTime;
    }
};

// Tells which processes are children of a process that was made idle: they are idle as it was (the kernel
// resets that on a fork neither by itself nor on request), started after it became so, and descend from it.
// Once it has ended, they are other processes' children, and must share its session or process group instead.
struct IdleFamily {
    pid_t session = 0;
    pid_t processGroup = 0;
    int64_t since = 0;  // clock ticks since boot
};

// How often at most threads are looked at again, since others may be born meanwhile.
inline constexpr int kMostPolicyRounds = 50;

// How each thread of the process is scheduled; threads that vanish meanwhile are left out.
std::vector<ThreadPolicy> ReadThreadPolicies(pid_t pid);
// The first error, but for threads that have gone.
std::error_code MakeIdle(pid_t pid, const std::vector<ThreadPolicy>& threads);
// Gives each thread that is still idle its saved policy, or the main thread's if it was born meanwhile.
// Nothing once the process has ended. The first error, or EAGAIN when threads cannot be listed or keep
// coming.
std::error_code RestorePolicies(pid_t pid, int pidfd, const std::vector<ThreadPolicy>& saved);

// The family that a process has from this moment on.
Result<IdleFamily> BeginIdleFamily(pid_t pid);
// Gives each process of the family the policy that the process's main thread had, except those named.
// `parentLives` says whether the process that they come from still lives. A child is not found when it has
// left the session and its parents have ended; a process of the same session that chose to be idle meanwhile
// is taken for a child then. The first error, or EAGAIN when new ones keep coming.
std::error_code RestoreFamily(pid_t pid, const IdleFamily& family, bool parentLives,
                              const std::vector<ThreadPolicy>& saved, const ProcessKeys& except);

}  // namespace KITE::Linux
