#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "base/result.h"

// /proc/PID/stat. A process chooses its command name, and may vanish between any two reads. Any thread.
namespace KITE::Linux {

struct ProcessStat {
    char state = 0;
    pid_t parent = 0;
    pid_t processGroup = 0;
    pid_t session = 0;
    uint32_t flags = 0;     // the kernel's PF_ flags
    int64_t cpuTicks = 0;   // of user and kernel mode, all threads; clock ticks
    int64_t startTime = 0;  // clock ticks since boot

    bool IsStopped() const { return state == 'T'; }
    // The process runs no more, though its parent has not collected its status yet.
    bool HasEnded() const { return state == 'Z' || state == 'X'; }
    bool IsKernelThread() const { return (flags & 0x00200000U) != 0; }  // PF_KTHREAD
};

// Absent for what the kernel does not write.
std::optional<ProcessStat> ParseProcessStat(std::string_view text);

// ESRCH when there is no such process; another error when that cannot be known.
Result<ProcessStat> ReadProcessStat(pid_t pid);
Result<ProcessStat> ReadThreadStat(pid_t pid, pid_t tid);

}  // namespace KITE::Linux
