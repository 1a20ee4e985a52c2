#include "proc/command_line.h"

#include <array>

#include "proc/process_file.h"

namespace KITE::Linux {

namespace {

// The service's own limit.
constexpr size_t kSeenLength = 15;

}  // namespace

std::string_view ProcessNameOf(std::string_view commandLine) {
    const std::string_view program = commandLine.substr(0, commandLine.find('\0'));
    if (program.size() >= kCommandLineBuffer) {
        return {};
    }
    return program.substr(program.rfind('/') + 1);
}

std::string ReadProcessName(pid_t pid) {
    std::array<char, kCommandLineBuffer> buffer;
    const Result<std::string_view> text = ReadProcessFile(pid, "cmdline", buffer);
    return text ? std::string(ProcessNameOf(*text)) : std::string();
}

void SeenName::Add(std::string_view piece) {
    const size_t slash = piece.rfind('/');
    if (slash != std::string_view::npos) {
        tail_.clear();
        piece.remove_prefix(slash + 1);
    }
    tail_.append(piece.substr(0, kSeenLength - tail_.size()));
}

bool IsAcceptedAs(std::string_view seenName, std::string_view reportedName) {
    return !seenName.empty() && reportedName.find(seenName) != std::string_view::npos;
}

}  // namespace KITE::Linux
