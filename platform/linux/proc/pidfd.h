#pragma once

#include <sys/types.h>

#include <cstdint>
#include <system_error>

#include "base/result.h"
#include "base/unique_fd.h"

// Processes by descriptor: unlike a pid, it never comes to mean another process. Any thread.
namespace KITE::Linux {

// A pidfd of the process that bears the pid and started at that time (clock ticks since boot). ESRCH when
// there is none such, EINVAL for a thread's id, another error when that cannot be known.
Result<UniqueFd> OpenProcess(pid_t pid, int64_t startTime);

// Whether the process that a pidfd names has ended.
bool HasExited(int pidfd);

std::error_code SendSignal(int pidfd, int signal);

}  // namespace KITE::Linux
