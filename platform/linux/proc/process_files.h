#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

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

// What the machine has given birth to, processes and threads.
struct Births {
    int64_t count = 0;  // since it started
    pid_t newest = 0;   // the pid that was given away last

    // Whether all that were born since then have pids in (then.newest, newest]. Pids are given away upwards,
    // skipping those in use; once they began again at the low end, fewer lie between than were born.
    bool AreAllAbove(const Births& then) const noexcept { return count - then.count <= newest - then.newest; }
};

class BirthCounter {
  public:
    // Absent when that cannot be known.
    std::optional<Births> Read();

  private:
    UniqueFd stat_;
    UniqueFd loadavg_;
    std::vector<char> buffer_;
};

// The processes that exist.
class ProcessList {
  public:
    // Calls back for each, in the order of their pids, which is that of /proc: its pid and the number of its
    // inode in /proc, which changes when the pid is given to another process. With `after` above 0 only those
    // in (after, newest], for the cost of these alone when `after` is the `newest` of the call before. False,
    // with errno set, when /proc cannot be read (to its end).
    bool ForEach(pid_t after, pid_t newest, const std::function<void(pid_t, ino_t)>& visit);

  private:
    // Where in the directory a process stands; reading from there on gives it and those after it.
    struct Place {
        pid_t pid = 0;
        off_t offset = 0;
    };

    UniqueFd directory_;
    Place place_;  // of the last one that was seen and not above `newest`
    alignas(8) std::array<char, 32768> entries_;
};

}  // namespace KITE::Linux::Sampling
