#include "base/rotated_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "base/result.h"
#include "base/unique_fd.h"

namespace KITE::Linux {

namespace {

constexpr size_t kMaxLineFileBytes = size_t{8} << 20;

struct OpenLineFile {
    UniqueFd fd;
    size_t size = 0;
};

// EINVAL for what is not a regular file.
Result<OpenLineFile> OpenForAppending(const std::string& path) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    UniqueFd fd(open(path.c_str(), kFlags, 0640));
    struct stat status {};
    if (!fd || fstat(fd.Get(), &status) != 0) {
        return LastError();
    }
    if (!S_ISREG(status.st_mode)) {
        return ErrorOf(EINVAL);
    }
    return OpenLineFile{std::move(fd), static_cast<size_t>(status.st_size)};
}

// A part that was written is taken back: whoever reads the file finds whole lines.
std::error_code WriteLines(const OpenLineFile& file, std::string_view lines) {
    const ssize_t written = write(file.fd.Get(), lines.data(), lines.size());
    if (written == static_cast<ssize_t>(lines.size())) {
        return {};
    }
    const std::error_code error = written < 0 ? LastError() : ErrorOf(ENOSPC);
    const bool isTakenBack = ftruncate(file.fd.Get(), static_cast<off_t>(file.size)) == 0;
    return written > 0 && !isTakenBack ? ErrorOf(EIO) : error;
}

}  // namespace

std::error_code AppendLines(const std::string& path, std::string_view lines) {
    static std::mutex rotation;
    const std::lock_guard lock(rotation);
    Result<OpenLineFile> file = OpenForAppending(path);
    if (file && file->size != 0 && file->size + lines.size() > kMaxLineFileBytes) {
        if (std::rename(path.c_str(), (path + ".1").c_str()) != 0) {
            return LastError();
        }
        file = OpenForAppending(path);
    }
    return file ? WriteLines(*file, lines) : file.Code();
}

}  // namespace KITE::Linux
