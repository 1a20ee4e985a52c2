#pragma once

#include <sys/types.h>

#include <dirent.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"

// Which processes and threads there are.
namespace KITE::Linux {

// Any thread.
Result<std::vector<pid_t>> ListProcesses();
// Empty when the process is gone. Any thread.
std::vector<pid_t> ListThreads(pid_t pid);

// The processes that exist, for one who looks often: keeps /proc open. One thread.
class ProcessList {
  public:
    // Calls back for each process, in the order of the pids: with its pid and the number of its inode in
    // /proc, which changes when the pid is given to another process. An error when /proc cannot be read to
    // its end.
    std::error_code ForEach(const std::function<void(pid_t, ino_t)>& visit);

  private:
    struct Closer {
        void operator()(DIR* directory) const { closedir(directory); }
    };

    std::unique_ptr<DIR, Closer> directory_;
};

// Counts the births of processes and threads on this machine. One thread.
class BirthCounter {
  public:
    // Since the machine started; absent when that cannot be known.
    std::optional<int64_t> Read();

  private:
    UniqueFd stat_;
    std::vector<char> buffer_;
};

}  // namespace KITE::Linux
