#pragma once

#include <chrono>
#include <string_view>
#include <system_error>

#include "base/result.h"
#include "base/unique_fd.h"

namespace KITE::Linux {

// Writes to a descriptor that another process gave us or shares with us, and waits for its reader no longer
// than it is told to. (WriteAll in base/file.h is for our own descriptors and waits as they do.) Whether
// writes to an open file wait is a flag of the file, which all its users share; it is therefore left as it
// is. Instead:
//
//   sockets    are sent to with MSG_DONTWAIT;
//   pipes      are given pages with vmsplice, which takes a flag for the one call (opening the pipe again is
//              forbidden to a process of another uid, and writing to a pipe takes RWF_NOWAIT only since
//              Linux 6.5);
//   terminals  are opened again with a flag of our own;
//   files      and /dev/null and its like are written plainly, since they have no reader; a file in a file
//              system that a process or another machine serves may make us wait;
//   all else   is refused with EINVAL.
//
// For one thread at a time. The descriptor stays the caller's.
class NonblockingWriter {
  public:
    // What to do with a descriptor that may make us wait after all: a file that is served elsewhere, and the
    // terminal of another user, which we may not open again. kRefuse refuses it. kWrite writes to it; to the
    // terminal in small pieces when it is ready, so that we wait only if it is stopped in the same moment.
    enum class Doubtful { kRefuse, kWrite };

    NonblockingWriter(int fd, Doubtful doubtful);

    // Writes the text, and takes off it what has been written. Waits for a slow reader until the deadline,
    // not at all if that has passed; then ETIMEDOUT. EPIPE: there is no reader.
    std::error_code WriteUntil(std::chrono::steady_clock::time_point deadline, std::string_view& text);

  private:
    // Writes a beginning of the text and returns how many bytes of it; EAGAIN when nothing can be written
    // now.
    using Write = Result<size_t> (*)(int fd, std::string_view text);

    Result<Write> Choose(Doubtful doubtful);
    Result<Write> ChooseForTerminal(Doubtful doubtful);

    const int fd_;
    UniqueFd reopened_;
    const Result<Write> write_;
};

}  // namespace KITE::Linux
