#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "runtime/unique_fd.h"

namespace KITE::Linux::Sampling {

// What a read gave: the text, in the caller's buffer, or the error number.
struct ReadText {
    std::string_view text;
    int error = 0;

    bool IsRead() const noexcept { return error == 0; }
};

// Whether an error number says that the process is no more, as opposed to: it may not be read.
bool MeansGone(int error);

// Enough for the first 4095 bytes of any file of /proc; a longer first argument names no process.
inline constexpr size_t kProcBufferSize = 4096;

// Opens /proc/PID/NAME; when that fails the descriptor is not open and errno tells why.
UniqueFd OpenProcFile(pid_t pid, const char* name);
// Reads what the file holds now from the offset on, as far as the buffer goes. A kept descriptor of
// "cmdline", "statm" or "io" answers for the process that it was opened for, never for a later one of the
// same number, and follows it through exec. Not so "smaps_rollup": it stays with the memory that it was
// opened for.
ReadText ReadProcFile(const UniqueFd& file, std::span<char> buffer, off_t offset = 0);
// Opens, reads and closes.
ReadText ReadProcFileOnce(pid_t pid, const char* name, std::span<char> buffer);

// How many processes and threads the machine has given birth to since it started.
class BirthCounter {
  public:
    // Absent when that cannot be known.
    std::optional<int64_t> Read();

  private:
    UniqueFd stat_;
    std::vector<char> buffer_;
};

// The processes that exist.
class ProcessList {
  public:
    // Calls back for each, in the order of their pids, which is that of /proc: its pid and the number of its
    // inode in /proc, which changes when the pid is given to another process. False, with errno set, when
    // /proc cannot be read (to its end).
    bool ForEach(const std::function<void(pid_t, ino_t)>& visit);

  private:
    UniqueFd directory_;
    alignas(8) std::array<char, 32768> entries_;
};

}  // namespace KITE::Linux::Sampling
