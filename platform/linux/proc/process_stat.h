#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What /proc tells of a process. A process chooses its command name and its arguments, and may vanish between
// any two reads: what is not there, or not as it must be, is absent. Any thread.
namespace KITE::Linux {

// A number of decimal digits, with a minus before it at most. Absent for anything else and when out of range.
std::optional<int64_t> ParseDecimal(std::string_view text);
// For log lines: a byte that is not printable ASCII becomes '?', and a long text is cut.
std::string Printable(std::string_view text);
std::string ErrorText(int error);

// Reads a file up to the limit; 0 or an error number (EFBIG above the limit).
int ReadTextFile(const std::string& path, size_t limit, std::string& text);

struct ProcStat {
    char state = 0;
    pid_t parent = 0;
    pid_t processGroup = 0;
    pid_t session = 0;
    uint32_t flags = 0;     // the kernel's PF_ flags
    int64_t startTime = 0;  // clock ticks since boot

    bool IsStopped() const { return state == 'T'; }
    // It runs no more, though nobody has collected its status yet.
    bool HasEnded() const { return state == 'Z' || state == 'X'; }
    bool IsKernelThread() const;
};

std::optional<ProcStat> ParseProcStat(std::string_view text);
std::optional<ProcStat> ReadProcStat(pid_t pid);
// 0; ESRCH when there is no such process; another error number when that cannot be known.
int ReadProcStat(pid_t pid, ProcStat& stat);
std::optional<ProcStat> ReadThreadStat(pid_t pid, pid_t tid);

// The last path component of the first argument, whole; empty for a zombie and for a kernel thread.
std::string ReadProcessName(pid_t pid);

// Which file a process executes. It changes with every exec of another program.
struct ExecutableIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const ExecutableIdentity&) const = default;
};

std::optional<ExecutableIdentity> ReadExecutableIdentity(pid_t pid);
// The executable's file name without its directory, also when the file has been replaced since.
std::string ReadExecutableName(pid_t pid);

// The ids of all processes; 0 or an error number.
int ReadProcessIds(std::vector<pid_t>& processes);
// Thread ids; empty when the process has gone.
std::vector<pid_t> ThreadsOf(pid_t pid);

}  // namespace KITE::Linux
