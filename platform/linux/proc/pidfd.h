#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <system_error>
#include <utility>

#include "base/result.h"
#include "base/unique_fd.h"

// Processes by descriptor: unlike a pid, it never comes to mean another process. Any thread.
namespace KITE::Linux {

// A process: its pid, and its start time in clock ticks since boot.
using ProcessKey = std::pair<pid_t, int64_t>;
using ProcessKeys = std::set<ProcessKey>;

// Of the process that bears the pid and started then. ESRCH without one; else it cannot be known.
Result<UniqueFd> OpenProcess(pid_t pid, int64_t startTime);

// Whether the process that a pidfd names has ended.
bool HasExited(int pidfd);

std::error_code SendSignal(int pidfd, int signal);

}  // namespace KITE::Linux
