#include "base/file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "base/unique_fd.h"

namespace KITE::Linux {

Result<std::string> ReadFile(const std::string& path, size_t limit) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    return file ? ReadFile(file.Get(), limit) : LastError();
}

Result<std::string> ReadFile(int fd, size_t limit) {
    char piece[16384];
    std::string text;
    // One byte beyond the limit tells a file that is too long from one that fits.
    while (text.size() <= limit) {
        const ssize_t count = read(fd, piece, std::min(sizeof(piece), limit + 1 - text.size()));
        if (count == 0) {
            return text;
        }
        if (count > 0) {
            text.append(piece, static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return LastError();
        }
    }
    return ErrorOf(EFBIG);
}

std::error_code WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count >= 0) {
            text.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EINTR) {
            return LastError();
        }
    }
    return {};
}

std::error_code WriteFile(const std::string& path, std::string_view text) {
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return file ? WriteAll(file.Get(), text) : LastError();
}

}  // namespace KITE::Linux
