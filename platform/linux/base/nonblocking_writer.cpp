#include "base/nonblocking_writer.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>

namespace KITE::Linux {

namespace {

constexpr size_t kPipeBytes = 65536;  // the usual size of a pipe
constexpr size_t kFileBytes = size_t{1} << 20;
constexpr size_t kTerminalBytes = 64;
constexpr unsigned kMemoryDevices = 1;  // major number of /dev/null, /dev/full and so on

// Whether a write may wait for another process or machine, for as long as that likes.
bool IsServedElsewhere(int fd) {
    constexpr std::array<uint32_t, 7> kFileSystems{FUSE_SUPER_MAGIC, NFS_SUPER_MAGIC,  CIFS_SUPER_MAGIC,
                                                   SMB2_SUPER_MAGIC, CEPH_SUPER_MAGIC, AFS_SUPER_MAGIC,
                                                   V9FS_MAGIC};
    struct statfs status {};
    return fstatfs(fd, &status) != 0 ||
           std::ranges::find(kFileSystems, static_cast<uint32_t>(status.f_type)) != kFileSystems.end();
}

// What takes nothing will take nothing: the memory file of a process that has ended does so.
Result<size_t> Counted(ssize_t written) {
    if (written == 0) {
        return ErrorOf(EIO);
    }
    return written < 0 ? Result<size_t>(LastError()) : static_cast<size_t>(written);
}

// Zero when some bytes can be written. A pipe without a reader gives EPIPE here, and no SIGPIPE.
std::error_code Readiness(int fd) {
    pollfd waiting{fd, POLLOUT, 0};
    if (poll(&waiting, 1, 0) < 0) {
        return LastError();
    }
    if ((waiting.revents & (POLLERR | POLLHUP)) != 0) {
        return ErrorOf(EPIPE);
    }
    return (waiting.revents & POLLOUT) != 0 ? std::error_code() : ErrorOf(EAGAIN);
}

Result<size_t> Send(int fd, std::string_view text) {
    return Counted(send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

// The pipe refers to the pages that it is given until they have been read, so it gets pages of its own.
Result<size_t> WriteToPipe(int fd, std::string_view text) {
    if (const std::error_code error = Readiness(fd)) {
        return error;
    }
    const size_t size = std::min(text.size(), kPipeBytes);
    void* pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        return LastError();
    }
    std::memcpy(pages, text.data(), size);
    const iovec part{pages, size};
    Result<size_t> written = Counted(vmsplice(fd, &part, 1, SPLICE_F_NONBLOCK));
    munmap(pages, size);
    return written;
}

Result<size_t> WritePlainly(int fd, std::string_view text) {
    return Counted(write(fd, text.data(), std::min(text.size(), kFileBytes)));
}

Result<size_t> WriteWhenReady(int fd, std::string_view text) {
    const std::error_code error = Readiness(fd);
    return error ? error : Counted(write(fd, text.data(), std::min(text.size(), kTerminalBytes)));
}

}  // namespace

NonblockingWriter::NonblockingWriter(int fd, Doubtful doubtful) : fd_(fd), write_(Choose(doubtful)) {}

Result<NonblockingWriter::Write> NonblockingWriter::Choose(Doubtful doubtful) {
    struct stat status {};
    const int flags = fcntl(fd_, F_GETFL);
    if (flags < 0 || fstat(fd_, &status) != 0) {
        return LastError();
    }
    // Opening a terminal again must not give more than the descriptor gives.
    if ((flags & O_ACCMODE) == O_RDONLY) {
        return ErrorOf(EBADF);
    }
    switch (status.st_mode & S_IFMT) {
        case S_IFSOCK:
            return &Send;
        case S_IFIFO:
            return &WriteToPipe;
        case S_IFREG:
            return doubtful == Doubtful::kRefuse && IsServedElsewhere(fd_) ? Result<Write>(ErrorOf(EINVAL))
                                                                           : &WritePlainly;
        case S_IFCHR:
            return major(status.st_rdev) == kMemoryDevices ? &WritePlainly : ChooseForTerminal(doubtful);
        default:
            return ErrorOf(EINVAL);
    }
}

Result<NonblockingWriter::Write> NonblockingWriter::ChooseForTerminal(Doubtful doubtful) {
    if (isatty(fd_) == 0) {
        return ErrorOf(EINVAL);
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd_);
    reopened_ = UniqueFd(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (reopened_) {
        return &WritePlainly;
    }
    return doubtful == Doubtful::kRefuse ? Result<Write>(LastError()) : &WriteWhenReady;
}

std::error_code NonblockingWriter::WriteUntil(std::chrono::steady_clock::time_point deadline,
                                              std::string_view& text) {
    using std::chrono::ceil, std::chrono::milliseconds, std::chrono::steady_clock;
    const int fd = reopened_ ? reopened_.Get() : fd_;
    const bool mayWait = steady_clock::now() < deadline;
    while (write_ && !text.empty()) {
        const Result<size_t> written = (*write_)(fd, text);
        if (!written && !Is(written.Code(), EAGAIN) && !Is(written.Code(), EINTR)) {
            return written.Code();
        }
        text.remove_prefix(written ? *written : 0);
        // A slow disk never says EAGAIN, so that the time is looked at after each piece too.
        const auto left = ceil<milliseconds>(deadline - steady_clock::now());
        if (!text.empty() && left <= milliseconds::zero() && (mayWait || !written)) {
            return ErrorOf(ETIMEDOUT);
        }
        if (Is(written.Code(), EAGAIN)) {
            pollfd waiting{fd, POLLOUT, 0};
            poll(&waiting, 1, static_cast<int>(left.count()));
        }
    }
    return write_.Code();
}

}  // namespace KITE::Linux
