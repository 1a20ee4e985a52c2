#include "base/line_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>

#include "base/unique_fd.h"

namespace KITE::Linux {

namespace {

constexpr size_t kMaxLineFileBytes = size_t{8} << 20;

// Opens the file for appending and finds its size; fails (errno) for what is not a regular file.
UniqueFd OpenForAppending(const std::string& path, size_t& size) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    UniqueFd file(open(path.c_str(), kFlags, 0640));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return {};
    }
    size = static_cast<size_t>(status.st_size);
    return file;
}

// They are there as a whole or not at all.
int32_t WriteLines(int fd, size_t sizeBefore, std::string_view lines) {
    const ssize_t written = write(fd, lines.data(), lines.size());
    if (written == static_cast<ssize_t>(lines.size())) {
        return 0;
    }
    const int32_t failure = written < 0 ? errno : ENOSPC;
    return ftruncate(fd, static_cast<off_t>(sizeBefore)) != 0 && written > 0 ? EIO : failure;
}

}  // namespace

int32_t AppendLines(const std::string& path, std::string_view lines) {
    static std::mutex rotation;
    const std::lock_guard lock(rotation);
    size_t size = 0;
    UniqueFd file = OpenForAppending(path, size);
    if (file && size != 0 && size + lines.size() > kMaxLineFileBytes) {
        if (std::rename(path.c_str(), (path + ".1").c_str()) != 0) {
            return errno;
        }
        file = OpenForAppending(path, size);
    }
    return file ? WriteLines(file.Get(), size, lines) : errno;
}

}  // namespace KITE::Linux
