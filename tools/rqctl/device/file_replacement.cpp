#include "rqctl/device/file_replacement.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "base/file.h"

namespace KITE::Rqctl {

using Linux::Failure;
using Linux::LastError;
using Linux::Result;
using Linux::UniqueFd;

Result<FileReplacement> FileReplacement::Open(const std::string& path) {
    FileReplacement file(path);
    if (const Result<void> locked = file.LockDirectory(); !locked) {
        return locked.Why().In(file.directoryPath_);
    }
    if (const Result<void> read = file.ReadOld(); !read) {
        return read.Why().In(path);
    }
    return file;
}

Result<void> FileReplacement::LockDirectory() {
    directory_ = UniqueFd(open(directoryPath_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!directory_ || fstat(directory_.Get(), &status) != 0 || flock(directory_.Get(), LOCK_EX) != 0) {
        return LastError();
    }
    owner_ = status.st_uid;
    group_ = status.st_gid;
    return {};
}

Result<void> FileReplacement::ReadOld() {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    const UniqueFd file(openat(directory_.Get(), name_.c_str(), kFlags));
    if (!file && errno == ENOENT) {
        return {};
    }
    if (!file && errno == ELOOP) {
        return Failure("is a symbolic link, which is not replaced");
    }
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return LastError();
    }
    if (!S_ISREG(status.st_mode)) {
        return Failure("is not a regular file");
    }
    Result<std::string> content = Linux::ReadFile(file.Get());
    if (!content) {
        return content.Why();
    }
    content_ = std::move(*content);
    owner_ = status.st_uid;
    group_ = status.st_gid;
    mode_ = status.st_mode & 07777;
    return {};
}

std::error_code FileReplacement::WriteNew(int fd, std::string_view content) const {
    if (const std::error_code error = Linux::WriteAll(fd, content)) {
        return error;
    }
    // The mode comes last: a change of owner takes bits away.
    const bool isDone = fchown(fd, owner_, group_) == 0 && fchmod(fd, mode_) == 0 && fsync(fd) == 0;
    return isDone ? std::error_code() : LastError();
}

Result<void> FileReplacement::Replace(std::string_view content) {
    const std::string newName = "." + name_ + ".new";
    const int directory = directory_.Get();
    // A killed process may have left one; the lock says that it is not being written now.
    unlinkat(directory, newName.c_str(), 0);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const UniqueFd file(openat(directory, newName.c_str(), kFlags, 0600));
    if (!file) {
        return Failure(directoryPath_, LastError());
    }
    std::error_code error = WriteNew(file.Get(), content);
    if (!error && renameat(directory, newName.c_str(), directory, name_.c_str()) != 0) {
        error = LastError();
    }
    if (error) {
        unlinkat(directory, newName.c_str(), 0);
        return Failure(directoryPath_ + "/" + name_, error);
    }
    return fsync(directory) == 0 ? Result<void>() : Failure(directoryPath_, LastError());
}

}  // namespace KITE::Rqctl
