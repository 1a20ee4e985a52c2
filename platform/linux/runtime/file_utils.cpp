#include "file_utils.h"

#include <chrono>
#include <cstring>

#include "base/file.h"
#include "base/nonblocking_writer.h"
#include "runtime/platform_log.h"

namespace KITE {

namespace {

constexpr std::chrono::seconds kReaderPatience{2};

}  // namespace

bool LoadStringFromFile(const std::string& path, std::string& content) {
    Linux::Result<std::string> text = Linux::ReadFile(path);
    if (text) {
        content = std::move(*text);
    }
    return static_cast<bool>(text);
}

bool SaveStringToFd(int fd, const std::string& content) {
    using Linux::NonblockingWriter;
    NonblockingWriter writer(fd, NonblockingWriter::Doubtful::kRefuse);
    const int error =
        Linux::WriteWhole(fd, writer, content, std::chrono::steady_clock::now() + kReaderPatience);
    if (error != 0) {
        PLATFORM_LOGE("cannot write to descriptor %{public}d: %{public}s", fd, strerrordesc_np(error));
    }
    return error == 0;
}

}  // namespace KITE
