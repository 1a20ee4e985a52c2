#include "proc/program.h"

#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <system_error>

#include "proc/process_file.h"

namespace KITE::Linux {

namespace {

// What follows the last slash, the whole text where there is none.
std::string_view LastComponent(std::string_view text) {
    return text.substr(text.rfind('/') + 1);
}

std::string_view UpToNul(std::string_view text) {
    return text.substr(0, text.find('\0'));
}

}  // namespace

std::string_view ProcessNameOf(std::string_view commandLine) {
    const std::string_view program = UpToNul(commandLine);
    const bool mayBeCut = program.size() >= kCommandLineBuffer;
    return mayBeCut ? std::string_view() : LastComponent(program);
}

std::string ReadProcessName(pid_t pid) {
    std::array<char, kCommandLineBuffer> buffer;
    const Result<std::string_view> text = ReadProcessFile(pid, "cmdline", buffer);
    return text ? std::string(ProcessNameOf(*text)) : std::string();
}

std::string_view SeenNameOf(std::string_view commandLine) {
    constexpr size_t kSeenLength = 15;  // the service's own limit
    return UpToNul(LastComponent(commandLine).substr(0, kSeenLength));
}

bool IsAcceptedAs(std::string_view seenName, std::string_view reportedName) {
    return !seenName.empty() && reportedName.find(seenName) != std::string_view::npos;
}

std::optional<ExecutableIdentity> ReadExecutableIdentity(pid_t pid) {
    struct stat file {};
    const bool isThere = stat(ProcessFilePath(pid, "exe").c_str(), &file) == 0;
    return isThere ? std::optional(ExecutableIdentity{file.st_dev, file.st_ino, file.st_uid}) : std::nullopt;
}

std::string ReadExecutableName(pid_t pid) {
    std::error_code error;
    const std::string path = std::filesystem::read_symlink(ProcessFilePath(pid, "exe"), error);
    std::string_view name = LastComponent(path);
    constexpr std::string_view kReplaced = " (deleted)";
    if (name.ends_with(kReplaced)) {
        name.remove_suffix(kReplaced.size());
    }
    return std::string(name);
}

}  // namespace KITE::Linux
