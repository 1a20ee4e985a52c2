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
#include <cerrno>
#include <cstdint>
#include <string>

namespace KITE::Linux {

namespace {

constexpr size_t kStagingBytes = 65536;  // a pipe's size unless somebody changes it
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

ssize_t ResultOf(ssize_t written) {
    return written < 0 ? -errno : written;
}

// 0 when a write would succeed at least in part, else the negative error number. Asking first also spares the
// process the SIGPIPE of a pipe that nobody reads.
int Readiness(int fd) {
    pollfd waiting{fd, POLLOUT, 0};
    if (poll(&waiting, 1, 0) < 0) {
        return -errno;
    }
    if ((waiting.revents & (POLLERR | POLLHUP)) != 0) {
        return -EPIPE;
    }
    return (waiting.revents & POLLOUT) != 0 ? 0 : -EAGAIN;
}

}  // namespace

NonblockingWriter::NonblockingWriter(int fd, Doubtful doubtful) : fd_(fd), method_(Choose(doubtful)) {}

NonblockingWriter::Method NonblockingWriter::Choose(Doubtful doubtful) {
    struct stat status {};
    const int flags = fcntl(fd_, F_GETFL);
    if (flags < 0 || fstat(fd_, &status) != 0) {
        return Refuse(errno);
    }
    // Opening a terminal again must not give more than the descriptor gives.
    if ((flags & O_ACCMODE) == O_RDONLY) {
        return Refuse(EBADF);
    }
    switch (status.st_mode & S_IFMT) {
        case S_IFSOCK:
            return &NonblockingWriter::Send;
        case S_IFREG:
            return doubtful == Doubtful::kRefuse && IsServedElsewhere(fd_) ? Refuse(EINVAL)
                                                                           : &NonblockingWriter::WritePlainly;
        case S_IFCHR:
            return ChooseForDevice(status.st_rdev, doubtful);
        case S_IFIFO:
            break;
        default:
            return Refuse(EINVAL);
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        return Refuse(errno);
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
        return Refuse(EINVAL);
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd_);
    reopened_ = UniqueFd(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (reopened_) {
        return &NonblockingWriter::WriteReopened;
    }
    return doubtful == Doubtful::kRefuse ? Refuse(errno) : &NonblockingWriter::WriteWhenReady;
}

NonblockingWriter::Method NonblockingWriter::Refuse(int error) {
    error_ = error;
    return &NonblockingWriter::Refused;
}

ssize_t NonblockingWriter::Write(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    const ssize_t written = (this->*method_)(text);
    if (written > 0 || written == -EAGAIN || written == -EINTR) {
        return written;
    }
    DropStaged();
    return written != 0 ? written : -EIO;
}

// The pipe is emptied rather than made anew, which could fail for want of descriptors.
void NonblockingWriter::DropStaged() {
    char dropped[4096];
    while (staged_ > 0 && read(stagingOut_.Get(), dropped, sizeof(dropped)) > 0) {
    }
    staged_ = 0;
}

ssize_t NonblockingWriter::Refused(std::string_view /*text*/) {
    return -error_;
}

ssize_t NonblockingWriter::Send(std::string_view text) {
    return ResultOf(send(fd_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
}

ssize_t NonblockingWriter::Splice(std::string_view text) {
    if (const int readiness = Readiness(fd_); readiness != 0) {
        return readiness;
    }
    if (staged_ == 0) {
        const ssize_t staged = write(stagingIn_.Get(), text.data(), std::min(text.size(), kStagingBytes));
        if (staged < 0) {
            return -errno;
        }
        staged_ = static_cast<size_t>(staged);
    }
    const ssize_t moved =
        splice(stagingOut_.Get(), nullptr, fd_, nullptr, std::min(staged_, text.size()), SPLICE_F_NONBLOCK);
    if (moved < 0) {
        return -errno;
    }
    staged_ -= static_cast<size_t>(moved);
    return moved;
}

ssize_t NonblockingWriter::WriteReopened(std::string_view text) {
    return ResultOf(write(reopened_.Get(), text.data(), text.size()));
}

ssize_t NonblockingWriter::WritePlainly(std::string_view text) {
    return ResultOf(write(fd_, text.data(), std::min(text.size(), kFileBytes)));
}

ssize_t NonblockingWriter::WriteWhenReady(std::string_view text) {
    const int readiness = Readiness(fd_);
    return readiness != 0 ? readiness
                          : ResultOf(write(fd_, text.data(), std::min(text.size(), kTerminalBytes)));
}

int WriteWhole(int fd, NonblockingWriter& writer, std::string_view text,
               std::chrono::steady_clock::time_point deadline) {
    using std::chrono::ceil, std::chrono::milliseconds, std::chrono::steady_clock;
    while (!text.empty()) {
        const ssize_t written = writer.Write(text);
        if (written >= 0) {
            text.remove_prefix(static_cast<size_t>(written));
        } else if (written != -EAGAIN && written != -EINTR) {
            return static_cast<int>(-written);
        }
        const auto left = ceil<milliseconds>(deadline - steady_clock::now());
        if (!text.empty() && left <= milliseconds::zero()) {
            return ETIMEDOUT;
        }
        if (written == -EAGAIN) {
            pollfd waiting{fd, POLLOUT, 0};
            poll(&waiting, 1, static_cast<int>(left.count()));
        }
    }
    return 0;
}

}  // namespace KITE::Linux
