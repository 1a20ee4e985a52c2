#include "base/nonblocking_writer.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

namespace KITE::Linux {

namespace {

constexpr size_t kStagingBytes = 65536;  // the usual size of a pipe
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

Result<size_t> Counted(ssize_t written) {
    return written < 0 ? Result<size_t>(LastError()) : static_cast<size_t>(written);
}

// Zero when a write would succeed at least in part. Asking first also spares the process the SIGPIPE of a
// pipe without a reader.
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

}  // namespace

NonblockingWriter::NonblockingWriter(int fd, Doubtful doubtful) : fd_(fd), method_(Choose(doubtful)) {}

NonblockingWriter::Method NonblockingWriter::Choose(Doubtful doubtful) {
    struct stat status {};
    const int flags = fcntl(fd_, F_GETFL);
    if (flags < 0 || fstat(fd_, &status) != 0) {
        return Refuse(LastError());
    }
    // Opening a terminal again must not give more than the descriptor gives.
    if ((flags & O_ACCMODE) == O_RDONLY) {
        return Refuse(ErrorOf(EBADF));
    }
    switch (status.st_mode & S_IFMT) {
        case S_IFSOCK:
            return &NonblockingWriter::Send;
        case S_IFIFO:
            return ChooseForPipe();
        case S_IFREG:
            return doubtful == Doubtful::kRefuse && IsServedElsewhere(fd_) ? Refuse(ErrorOf(EINVAL))
                                                                           : &NonblockingWriter::WritePlainly;
        case S_IFCHR:
            return ChooseForDevice(status.st_rdev, doubtful);
        default:
            return Refuse(ErrorOf(EINVAL));
    }
}

NonblockingWriter::Method NonblockingWriter::ChooseForPipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return Refuse(LastError());
    }
    stagingOut_ = UniqueFd(ends[0]);
    stagingIn_ = UniqueFd(ends[1]);
    return &NonblockingWriter::Splice;
}

NonblockingWriter::Method NonblockingWriter::ChooseForDevice(dev_t device, Doubtful doubtful) {
    if (major(device) == kMemoryDevices) {
        return &NonblockingWriter::WritePlainly;
    }
    if (isatty(fd_) == 0) {
        return Refuse(ErrorOf(EINVAL));
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd_);
    reopened_ = UniqueFd(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (reopened_) {
        return &NonblockingWriter::WriteReopened;
    }
    return doubtful == Doubtful::kRefuse ? Refuse(LastError()) : &NonblockingWriter::WriteWhenReady;
}

NonblockingWriter::Method NonblockingWriter::Refuse(std::error_code reason) {
    refusal_ = reason;
    return &NonblockingWriter::Refused;
}

Result<size_t> NonblockingWriter::Write(std::string_view text) {
    if (text.empty()) {
        return size_t{0};
    }
    Result<size_t> written = (this->*method_)(text);
    while (Is(written.Code(), EINTR)) {
        written = (this->*method_)(text);
    }
    if (written && *written == 0) {
        written = ErrorOf(EIO);
    }
    if (!written && !Is(written.Code(), EAGAIN)) {
        DropStaged();
    }
    return written;
}

std::error_code NonblockingWriter::WriteAllUntil(std::chrono::steady_clock::time_point deadline,
                                                 std::string_view text) {
    using std::chrono::ceil, std::chrono::milliseconds, std::chrono::steady_clock;
    while (!text.empty()) {
        const Result<size_t> written = Write(text);
        if (!written && !Is(written.Code(), EAGAIN)) {
            return written.Code();
        }
        text.remove_prefix(written ? *written : 0);
        const auto left = ceil<milliseconds>(deadline - steady_clock::now());
        if (!text.empty() && left <= milliseconds::zero()) {
            return ErrorOf(ETIMEDOUT);
        }
        if (!written) {
            pollfd waiting{fd_, POLLOUT, 0};
            poll(&waiting, 1, static_cast<int>(left.count()));
        }
    }
    return {};
}

Result<size_t> NonblockingWriter::Refused(std::string_view /*text*/) {
    return refusal_;
}

Result<size_t> NonblockingWriter::Send(std::string_view text) {
    return Counted(send(fd_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

// splice moves bytes from pipe to pipe and takes the flag that a write to the reader's pipe cannot take. So
// the text goes into the staging pipe first. What the reader's pipe has no room for stays there: bytes cannot
// be put back, and the next call goes on with them.
Result<size_t> NonblockingWriter::Splice(std::string_view text) {
    if (const std::error_code error = Readiness(fd_)) {
        return error;
    }
    if (staged_ == 0) {
        const ssize_t staged = write(stagingIn_.Get(), text.data(), std::min(text.size(), kStagingBytes));
        if (staged < 0) {
            return LastError();
        }
        staged_ = static_cast<size_t>(staged);
    }
    Result<size_t> moved = Counted(
        splice(stagingOut_.Get(), nullptr, fd_, nullptr, std::min(staged_, text.size()), SPLICE_F_NONBLOCK));
    staged_ -= moved ? *moved : 0;
    return moved;
}

// For a text that is given up. The pipe is emptied rather than made anew, which could fail for want of
// descriptors.
void NonblockingWriter::DropStaged() {
    char dropped[4096];
    while (staged_ > 0 && read(stagingOut_.Get(), dropped, sizeof(dropped)) > 0) {
    }
    staged_ = 0;
}

Result<size_t> NonblockingWriter::WriteReopened(std::string_view text) {
    return Counted(write(reopened_.Get(), text.data(), text.size()));
}

Result<size_t> NonblockingWriter::WritePlainly(std::string_view text) {
    return Counted(write(fd_, text.data(), std::min(text.size(), kFileBytes)));
}

Result<size_t> NonblockingWriter::WriteWhenReady(std::string_view text) {
    const std::error_code error = Readiness(fd_);
    return error ? error : Counted(write(fd_, text.data(), std::min(text.size(), kTerminalBytes)));
}

}  // namespace KITE::Linux
