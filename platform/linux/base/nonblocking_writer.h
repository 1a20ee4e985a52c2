#pragma once

#include <chrono>
#include <string_view>
#include <system_error>

#include "base/result.h"
#include "base/unique_fd.h"

namespace KITE::Linux {

// Writes to a descriptor that another process gave us or shares with us, and waits for its reader no longer
// than it is told to. Whether writes wait is a flag of the open file, which all its users share, so that is
// left as it is. Instead:
//
//   sockets    are sent to with MSG_DONTWAIT;
//   pipes      are given pages with vmsplice, which takes a flag for the one call (a process of another uid
//              may not open a pipe again, and a write to one takes such a flag only since Linux 6.5);
//   terminals  are opened again with a flag of our own;
//   files      and /dev/null and its like have no reader and are written plainly; a file system that a
//              process or another machine serves may make us wait;
//   all else   is refused with EINVAL.
//
// For one thread at a time. The descriptor stays the caller's.
class NonblockingWriter {
  public:
    // What to do with a file that is served elsewhere, and with a terminal that we may not open again, since
    // both may make us wait. kWrite writes to a terminal in small pieces when it is ready, so that we wait
    // only if it is stopped in the same moment.
    enum class Doubtful { kRefuse, kWrite };

    NonblockingWriter(int fd, Doubtful doubtful);

    // Writes the text, and takes off it what has been written. Waits for a slow reader until the deadline,
    // not at all if that has passed; then ETIMEDOUT. EPIPE: there is no reader.
    std::error_code WriteUntil(std::chrono::steady_clock::time_point deadline, std::string_view& text);

  private:
    // Returns how many bytes of the text's beginning it has written; EAGAIN when it cannot now.
    using Write = Result<size_t> (*)(int fd, std::string_view text);

    Result<Write> Choose(Doubtful doubtful);
    Result<Write> ChooseForTerminal(Doubtful doubtful);

    const int fd_;
    UniqueFd reopened_;
    const Result<Write> write_;
};

}  // namespace KITE::Linux
