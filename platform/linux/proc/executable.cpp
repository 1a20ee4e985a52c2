#include "proc/executable.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <string_view>

#include "proc/process_file.h"

namespace KITE::Linux {

std::optional<ExecutableIdentity> ReadExecutableIdentity(pid_t pid) {
    struct stat file {};
    if (stat(ProcessFilePath(pid, "exe").c_str(), &file) != 0) {
        return std::nullopt;
    }
    return ExecutableIdentity{file.st_dev, file.st_ino, file.st_uid};
}

std::string ReadExecutableName(pid_t pid) {
    std::array<char, 4096> buffer;
    const ssize_t length = readlink(ProcessFilePath(pid, "exe").c_str(), buffer.data(), buffer.size());
    if (length <= 0) {
        return {};
    }
    std::string_view path(buffer.data(), static_cast<size_t>(length));
    constexpr std::string_view kReplaced = " (deleted)";
    if (path.ends_with(kReplaced)) {
        path.remove_suffix(kReplaced.size());
    }
    return std::string(path.substr(path.rfind('/') + 1));
}

}  // namespace KITE::Linux
