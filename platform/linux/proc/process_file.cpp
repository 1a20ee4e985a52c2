#include "proc/process_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

namespace KITE::Linux {

namespace {

// A number at the front, which something must follow: at the very end it may have been cut off.
std::optional<int64_t> LeadingNumber(std::string_view text) {
    int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const bool isWhole =
        error == std::errc() && rest != end && (*rest == ' ' || *rest == '\n' || *rest == '\t');
    return isWhole && number >= 0 ? std::optional(number) : std::nullopt;
}

}  // namespace

std::string ProcessFilePath(pid_t pid, std::string_view name) {
    return "/proc/" + std::to_string(pid) + "/" + std::string(name);
}

bool MeansGone(const std::error_code& error) {
    return Is(error, ESRCH) || Is(error, ENOENT);
}

Result<UniqueFd> OpenProcessFile(pid_t pid, std::string_view name) {
    UniqueFd file(open(ProcessFilePath(pid, name).c_str(), O_RDONLY | O_CLOEXEC));
    return file ? Result<UniqueFd>(std::move(file)) : LastError();
}

Result<std::string_view> ReadOpenFile(const UniqueFd& file, std::span<char> buffer) {
    ssize_t length = -1;
    do {
        length = pread(file.Get(), buffer.data(), buffer.size(), 0);
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        return LastError();
    }
    return std::string_view(buffer.data(), static_cast<size_t>(length));
}

Result<std::string_view> ReadProcessFile(pid_t pid, std::string_view name, std::span<char> buffer) {
    const Result<UniqueFd> file = OpenProcessFile(pid, name);
    return file ? ReadOpenFile(*file, buffer) : file.Why();
}

std::optional<int64_t> NumberOfLine(std::string_view text, std::string_view key) {
    while (!text.starts_with(key)) {
        const size_t lineEnd = text.find('\n');
        if (lineEnd == std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(lineEnd + 1);
    }
    text.remove_prefix(key.size());
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return LeadingNumber(text);
}

std::optional<int64_t> ResidentPagesOf(std::string_view statm) {
    const size_t blank = statm.find(' ');
    return blank == std::string_view::npos ? std::nullopt : LeadingNumber(statm.substr(blank + 1));
}

}  // namespace KITE::Linux
