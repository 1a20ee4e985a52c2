#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// /proc/PID/exe: the file that a process executes. Any thread.
namespace KITE::Linux {

// Which file it is. It changes with every exec of another program.
struct ExecutableIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;

    bool operator==(const ExecutableIdentity&) const = default;
};

// Absent when the process is gone, may not be looked at, or executes no file (a kernel thread).
std::optional<ExecutableIdentity> ReadExecutableIdentity(pid_t pid);
// The file's name without its directory, also when the file has been replaced since; empty as above.
std::string ReadExecutableName(pid_t pid);

}  // namespace KITE::Linux
