#pragma once

#include <sys/types.h>

#include <chrono>
#include <string_view>
#include <system_error>

#include "base/result.h"
#include "base/unique_fd.h"

namespace KITE::Linux {

// Writes to a descriptor that another process gave us or shares with us, without waiting for its reader.
// (WriteAll in base/file.h is for our own descriptors and waits as they do.) Whether writes to an open file
// wait is a flag of the file, which all its users share; it is therefore left as it is. Instead:
//
//   sockets    are sent to with MSG_DONTWAIT;
//   pipes      get their bytes moved over from a pipe of our own, since splice takes a flag for the one call
//              (opening the pipe again is forbidden to a process of another uid, and writing to a pipe takes
//              RWF_NOWAIT only since Linux 6.5);
//   terminals  are opened again with a flag of our own;
//   files      and /dev/null and its like are written plainly, since they have no reader; a file in a file
//              system that a process or another machine serves may make us wait;
//   all else   is refused with EINVAL.
//
// Belongs to one thread at a time. The descriptor stays the caller's.
class NonblockingWriter {
  public:
    // What to do with a descriptor that may make us wait after all: a file that is served elsewhere, and the
    // terminal of another user, which we may not open again. kRefuse refuses it. kWrite writes to it; to the
    // terminal in small pieces when it is ready, so that we wait only if it is stopped in the same moment.
    enum class Doubtful { kRefuse, kWrite };

    NonblockingWriter(int fd, Doubtful doubtful);

    // Writes a beginning of the text and returns how many bytes of it. EAGAIN: nothing can be written now;
    // EPIPE: there is no reader. After EAGAIN, as after a part, the next call's text must begin with what was
    // not written. After another error it may be any text: a named pipe may get a reader again.
    Result<size_t> Write(std::string_view text);

    // Writes all of the text, and waits for a slow reader until the deadline; then ETIMEDOUT.
    std::error_code WriteAllUntil(std::chrono::steady_clock::time_point deadline, std::string_view text);

  private:
    using Method = Result<size_t> (NonblockingWriter::*)(std::string_view);

    Method Choose(Doubtful doubtful);
    Method ChooseForPipe();
    Method ChooseForDevice(dev_t device, Doubtful doubtful);
    Method Refuse(std::error_code reason);

    Result<size_t> Refused(std::string_view text);
    Result<size_t> Send(std::string_view text);
    Result<size_t> Splice(std::string_view text);
    Result<size_t> WriteReopened(std::string_view text);
    Result<size_t> WritePlainly(std::string_view text);
    Result<size_t> WriteWhenReady(std::string_view text);
    void DropStaged();

    const int fd_;
    std::error_code refusal_;
    UniqueFd reopened_;
    UniqueFd stagingIn_;
    UniqueFd stagingOut_;
    size_t staged_ = 0;  // bytes at the beginning of the text that wait in the staging pipe
    const Method method_;
};

}  // namespace KITE::Linux
