#include "proc/process_stat.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <system_error>

#include "base/unique_fd.h"

namespace KITE::Linux {

namespace {

constexpr uint32_t kKernelThreadFlag = 0x00200000;
constexpr size_t kFirstArgumentLimit = 4096;
constexpr size_t kPrintableLimit = 256;
constexpr size_t kStateField = 3;
constexpr size_t kParentField = 4;
constexpr size_t kProcessGroupField = 5;
constexpr size_t kSessionField = 6;
constexpr size_t kFlagsField = 9;
constexpr size_t kStartTimeField = 22;

std::string ProcPath(pid_t pid, std::string_view name) {
    return "/proc/" + std::to_string(pid) + "/" + std::string(name);
}

// Reads until the end or until the limit is exceeded by one byte.
int ReadUpTo(int fd, size_t limit, std::string& text) {
    std::array<char, 4096> buffer;
    while (text.size() <= limit) {
        const ssize_t count = read(fd, buffer.data(), std::min(buffer.size(), limit + 1 - text.size()));
        if (count == 0) {
            return 0;
        }
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        text.append(buffer.data(), count < 0 ? 0 : static_cast<size_t>(count));
    }
    return EFBIG;
}

int ReadStatFile(const std::string& path, ProcStat& stat) {
    std::string text;
    constexpr size_t kStatLimit = 4096;
    if (const int error = ReadTextFile(path, kStatLimit, text); error != 0) {
        return error == ENOENT ? ESRCH : error;
    }
    const std::optional<ProcStat> parsed = ParseProcStat(text);
    stat = parsed.value_or(ProcStat{});
    return parsed ? 0 : EBADMSG;
}

// The numbers that name entries of a directory.
int ReadNumbers(const std::string& path, std::vector<pid_t>& numbers) {
    std::error_code error;
    std::filesystem::directory_iterator entry(path, error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        if (const std::optional<int64_t> number = ParseDecimal(entry->path().filename().native())) {
            numbers.push_back(static_cast<pid_t>(*number));
        }
        entry.increment(error);
    }
    return error.value();
}

}  // namespace

std::optional<int64_t> ParseDecimal(std::string_view text) {
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    return isWhole ? std::optional(number) : std::nullopt;
}

std::string Printable(std::string_view text) {
    std::string printable(text.substr(0, kPrintableLimit));
    for (char& byte : printable) {
        byte = byte < ' ' || byte > '~' ? '?' : byte;
    }
    return printable;
}

std::string ErrorText(int error) {
    return std::generic_category().message(error);
}

int ReadTextFile(const std::string& path, size_t limit, std::string& text) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    text.clear();
    return file ? ReadUpTo(file.Get(), limit, text) : errno;
}

bool ProcStat::IsKernelThread() const {
    return (flags & kKernelThreadFlag) != 0;
}

std::optional<ProcStat> ParseProcStat(std::string_view text) {
    // The command name in parentheses may hold blanks and parentheses of its own.
    const size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string_view::npos || nameEnd + 2 >= text.size()) {
        return std::nullopt;
    }
    text.remove_prefix(nameEnd + 2);
    std::array<std::optional<int64_t>, kStartTimeField + 1> numbers;
    const char state = text.front();
    for (size_t field = kStateField; field <= kStartTimeField; ++field) {
        const size_t end = text.find(' ');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        numbers[field] = ParseDecimal(text.substr(0, end));
        text.remove_prefix(end + 1);
    }
    const auto isCount = [&](size_t field) { return numbers[field] && *numbers[field] >= 0; };
    // Without a parent, a group and a session, which a process that is being collected has no more.
    const auto pidOf = [&](size_t field) { return static_cast<pid_t>(numbers[field].value_or(0)); };
    if (!isCount(kFlagsField) || !isCount(kStartTimeField)) {
        return std::nullopt;
    }
    return ProcStat{.state = state,
                    .parent = pidOf(kParentField),
                    .processGroup = pidOf(kProcessGroupField),
                    .session = pidOf(kSessionField),
                    .flags = static_cast<uint32_t>(*numbers[kFlagsField]),
                    .startTime = *numbers[kStartTimeField]};
}

std::optional<ProcStat> ReadProcStat(pid_t pid) {
    ProcStat stat;
    return ReadProcStat(pid, stat) == 0 ? std::optional(stat) : std::nullopt;
}

int ReadProcStat(pid_t pid, ProcStat& stat) {
    return ReadStatFile(ProcPath(pid, "stat"), stat);
}

std::optional<ProcStat> ReadThreadStat(pid_t pid, pid_t tid) {
    ProcStat stat;
    const int error = ReadStatFile(ProcPath(pid, "task/" + std::to_string(tid) + "/stat"), stat);
    return error == 0 ? std::optional(stat) : std::nullopt;
}

std::string ReadProcessName(pid_t pid) {
    std::string text;
    const int error = ReadTextFile(ProcPath(pid, "cmdline"), kFirstArgumentLimit, text);
    if (error != 0 && error != EFBIG) {
        return {};
    }
    const size_t end = text.find('\0');
    if (end == std::string::npos && error == EFBIG) {
        return {};
    }
    text.resize(std::min(end, text.size()));
    return text.substr(text.rfind('/') + 1);
}

std::optional<ExecutableIdentity> ReadExecutableIdentity(pid_t pid) {
    struct stat file {};
    if (stat(ProcPath(pid, "exe").c_str(), &file) != 0) {
        return std::nullopt;
    }
    return ExecutableIdentity{file.st_dev, file.st_ino};
}

std::string ReadExecutableName(pid_t pid) {
    std::array<char, 4096> buffer;
    const ssize_t length = readlink(ProcPath(pid, "exe").c_str(), buffer.data(), buffer.size());
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

int ReadProcessIds(std::vector<pid_t>& processes) {
    return ReadNumbers("/proc", processes);
}

std::vector<pid_t> ThreadsOf(pid_t pid) {
    std::vector<pid_t> threads;
    static_cast<void>(ReadNumbers(ProcPath(pid, "task"), threads));
    return threads;
}

}  // namespace KITE::Linux
