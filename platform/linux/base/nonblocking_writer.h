#pragma once

#include <sys/types.h>

#include <chrono>
#include <string_view>

#include "base/unique_fd.h"

namespace KITE::Linux {

// Writes to a descriptor that others use too, without ever waiting for a reader. Whether writes to an open
// file wait is a flag of the file, which all its users share and which is therefore left alone. Instead:
//
//   sockets       are sent to with MSG_DONTWAIT;
//   pipes         get their bytes moved over from a pipe of our own, for splice takes a flag for the one
//   call.
//                 (Opening the pipe again is forbidden to a process of another uid, and a pipe takes
//                 RWF_NOWAIT only since Linux 6.5.)
//   terminals     are opened again with a flag of our own;
//   files         and /dev/null and its like are written plainly, since they have no reader; another user's
//                 in a file system that a process or another machine serves is refused: EINVAL;
//   all else      is refused: EINVAL.
//
// Belongs to one thread at a time. The descriptor stays the caller's.
class NonblockingWriter {
  public:
    // What to do with descriptors that can make us wait. A terminal of another user may not be opened again:
    // written to in small pieces when it is ready, it waits if somebody stops it in the same moment.
    enum class Doubtful { kRefuse, kWrite };

    NonblockingWriter(int fd, Doubtful doubtful);

    // Writes a beginning of the text. Returns how many bytes of it, or the negative error number: -EAGAIN
    // when nothing can be written now, -EPIPE when nobody reads. After -EAGAIN or -EINTR, as after a part,
    // what was not written must be the beginning of the next call's text; after another error the next text
    // may be any, for the reader of a named pipe may come back.
    ssize_t Write(std::string_view text);

  private:
    using Method = ssize_t (NonblockingWriter::*)(std::string_view);

    Method Choose(Doubtful doubtful);
    Method ChooseForDevice(dev_t device, Doubtful doubtful);
    Method Refuse(int error);
    void DropStaged();
    ssize_t Refused(std::string_view text);
    ssize_t Send(std::string_view text);
    ssize_t Splice(std::string_view text);
    ssize_t WriteReopened(std::string_view text);
    ssize_t WritePlainly(std::string_view text);
    ssize_t WriteWhenReady(std::string_view text);

    const int fd_;
    int error_ = 0;  // why the descriptor is refused
    UniqueFd reopened_;
    UniqueFd stagingIn_;
    UniqueFd stagingOut_;
    size_t staged_ = 0;  // bytes at the beginning of the text that wait in the staging pipe
    const Method method_;
};

// Writes the whole text, waiting for a slow reader until the deadline. 0 or the error number; ETIMEDOUT when
// the deadline passed.
int WriteWhole(int fd, NonblockingWriter& writer, std::string_view text,
               std::chrono::steady_clock::time_point deadline);

}  // namespace KITE::Linux
