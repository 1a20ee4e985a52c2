#include "rqctl/device/file_replacement.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "base/file.h"

namespace KITE::Rqctl {

using Linux::UniqueFd;

FileReplacement::FileReplacement(std::string path)
    : path_(std::move(path)),
      directoryPath_(std::filesystem::path(path_).parent_path()),
      name_(std::filesystem::path(path_).filename()) {}

bool FileReplacement::Fail(const std::string& what, std::string& error) const {
    error = what + ": " + strerrordesc_np(errno);
    return false;
}

bool FileReplacement::Open(std::string& error) {
    directory_ = UniqueFd(open(directoryPath_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (!directory_ || fstat(directory_.Get(), &status) != 0 || flock(directory_.Get(), LOCK_EX) != 0) {
        return Fail(directoryPath_, error);
    }
    owner_ = status.st_uid;
    group_ = status.st_gid;
    return ReadOld(error);
}

bool FileReplacement::ReadOld(std::string& error) {
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    const UniqueFd file(openat(directory_.Get(), name_.c_str(), kFlags));
    if (!file && errno == ENOENT) {
        return true;
    }
    if (!file && errno == ELOOP) {
        error = path_ + ": is a symbolic link, which is not replaced";
        return false;
    }
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return Fail(path_, error);
    }
    if (!S_ISREG(status.st_mode)) {
        error = path_ + ": is not a regular file";
        return false;
    }
    Linux::Result<std::string> content = Linux::ReadFile(file.Get());
    if (!content) {
        error = content.Why().In(path_).Text();
        return false;
    }
    content_ = std::move(*content);
    exists_ = true;
    owner_ = status.st_uid;
    group_ = status.st_gid;
    mode_ = status.st_mode & 07777;
    return true;
}

bool FileReplacement::WriteNew(int fd, std::string_view content) const {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        content.remove_prefix(static_cast<size_t>(written < 0 ? 0 : written));
    }
    // The mode comes last: a change of owner takes bits away.
    return fchown(fd, owner_, group_) == 0 && fchmod(fd, mode_) == 0 && fsync(fd) == 0;
}

bool FileReplacement::Replace(std::string_view content, std::string& error) {
    const std::string newName = "." + name_ + ".new";
    const int directory = directory_.Get();
    // What a killed predecessor left: the lock says that it is nobody's now.
    unlinkat(directory, newName.c_str(), 0);
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const UniqueFd file(openat(directory, newName.c_str(), kFlags, 0600));
    if (!file) {
        return Fail(directoryPath_, error);
    }
    if (!WriteNew(file.Get(), content) ||
        renameat(directory, newName.c_str(), directory, name_.c_str()) != 0) {
        Fail(path_, error);
        unlinkat(directory, newName.c_str(), 0);
        return false;
    }
    return fsync(directory) == 0 || Fail(directoryPath_, error);
}

}  // namespace KITE::Rqctl
