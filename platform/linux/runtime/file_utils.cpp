#include "file_utils.h"

#include <chrono>

#include "base/file.h"
#include "base/nonblocking_writer.h"
#include "runtime/platform_log.h"

namespace KITE {

bool LoadStringFromFile(const std::string& path, std::string& content) {
    Linux::Result<std::string> text = Linux::ReadFile(path);
    if (text) {
        content = std::move(*text);
    }
    return static_cast<bool>(text);
}

bool SaveStringToFd(int fd, const std::string& content) {
    using Linux::NonblockingWriter;
    constexpr std::chrono::seconds kReaderPatience{2};
    NonblockingWriter writer(fd, NonblockingWriter::Doubtful::kRefuse);
    std::string_view text = content;
    const std::error_code error = writer.WriteUntil(std::chrono::steady_clock::now() + kReaderPatience, text);
    if (error) {
        PLATFORM_LOGE("cannot write to descriptor %{public}d: %{public}s", fd, error.message().c_str());
    }
    return !error;
}

}  // namespace KITE
