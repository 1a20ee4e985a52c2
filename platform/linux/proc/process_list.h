#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "base/result.h"

// Which processes and threads there are. Any thread.
namespace KITE::Linux {

struct ListedProcess {
    pid_t pid;
    ino_t inode;  // of its folder in /proc; another one when the pid is given to another process
};

Result<std::vector<ListedProcess>> ListProcesses();
// Empty when the process is gone.
std::vector<pid_t> ListThreads(pid_t pid);

// How many processes and threads were born since the machine started.
Result<int64_t> CountBirths();

}  // namespace KITE::Linux
