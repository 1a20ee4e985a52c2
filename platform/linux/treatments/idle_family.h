#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <system_error>
#include <utility>

#include "base/result.h"
#include "treatments/thread_policies.h"

namespace KITE::Linux {

// Tells which processes are children of a process that was made idle: they are idle as it was (the kernel
// resets that on a fork neither by itself nor on request), started after it became so, and descend from it.
// Once it has ended, they are other processes' children, and must share its session or process group instead.
struct IdleFamily {
    pid_t pid = 0;
    pid_t session = 0;
    pid_t processGroup = 0;
    int64_t since = 0;  // clock ticks since boot
};

// A process: its pid and start time.
using ProcessKey = std::pair<pid_t, int64_t>;
using ProcessKeys = std::set<ProcessKey>;

// The family that a process has from this moment on.
Result<IdleFamily> BeginIdleFamily(pid_t pid);

// Gives each process of the family the policy, except those named. `parentLives` says whether the process
// that they come from still lives. A child is not found when it has left the session and its parents have
// ended; a process of the same session that chose to be idle meanwhile is taken for a child then. The first
// error, or EAGAIN when new ones keep coming.
std::error_code RestoreFamily(const IdleFamily& family, bool parentLives, const ThreadPolicy& policy,
                              const ProcessKeys& except);

}  // namespace KITE::Linux
