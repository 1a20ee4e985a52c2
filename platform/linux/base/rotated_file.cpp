#include "base/rotated_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>

#include "base/file.h"
#include "base/unique_fd.h"

namespace KITE::Linux {

namespace {

constexpr size_t kMaxLineFileBytes = size_t{8} << 20;

// EINVAL for what is not a regular file.
Result<size_t> SizeOf(const UniqueFd& file) {
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return LastError();
    }
    return S_ISREG(status.st_mode) ? Result<size_t>(static_cast<size_t>(status.st_size)) : ErrorOf(EINVAL);
}

UniqueFd OpenForAppending(const std::string& path) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    return UniqueFd(open(path.c_str(), kFlags, 0640));
}

}  // namespace

std::error_code AppendLines(const std::string& path, std::string_view lines) {
    static std::mutex rotation;
    const std::lock_guard lock(rotation);
    UniqueFd file = OpenForAppending(path);
    Result<size_t> size = SizeOf(file);
    if (size && *size != 0 && *size + lines.size() > kMaxLineFileBytes) {
        if (std::rename(path.c_str(), (path + ".1").c_str()) != 0) {
            return LastError();
        }
        file = OpenForAppending(path);
        size = SizeOf(file);
    }
    const std::error_code error = size ? WriteAll(file.Get(), lines) : size.Code();
    // A part that was written is taken back: who reads the file finds whole lines.
    if (size && error && ftruncate(file.Get(), static_cast<off_t>(*size)) != 0) {
        return ErrorOf(EIO);
    }
    return error;
}

}  // namespace KITE::Linux
