#include "base/file.h"

#include <fcntl.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace KITE::Linux {

int32_t ReadToEnd(int fd, EndOfFile end, std::string& content) {
    char piece[16384];
    std::string text;
    for (;;) {
        const ssize_t length = read(fd, piece, sizeof(piece));
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return errno;
        }
        const auto count = static_cast<size_t>(length);
        if (count > kMaxFileBytes - text.size()) {
            return EFBIG;
        }
        text.append(piece, count);
        if (count == 0 || (end == EndOfFile::kShortRead && count < sizeof(piece))) {
            break;
        }
    }
    content = std::move(text);
    return 0;
}

int32_t ReadWholeFile(const std::string& path, std::string& content) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        return errno;
    }
    // A command line fills the buffer as far as it goes. It is read for every report, and the read that only
    // finds its end would be a quarter of the cost.
    const EndOfFile end = path.ends_with("/cmdline") ? EndOfFile::kShortRead : EndOfFile::kEmptyRead;
    return ReadToEnd(file.Get(), end, content);
}

}  // namespace KITE::Linux
