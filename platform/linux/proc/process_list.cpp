#include "proc/process_list.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>

#include "base/text.h"
#include "proc/process_file.h"

namespace KITE::Linux {

namespace {

// Absent for a name that is not a pid.
std::optional<pid_t> PidOf(std::string_view name) {
    constexpr int64_t kMostPid = 1 << 22;  // the kernel's own limit
    const std::optional<int64_t> number = ParseDecimal(name);
    const bool isPid = number && *number > 0 && *number <= kMostPid;
    return isPid ? std::optional(static_cast<pid_t>(*number)) : std::nullopt;
}

// The numbers that name entries of a directory.
Result<std::vector<pid_t>> ListNumbers(const std::string& path) {
    std::vector<pid_t> numbers;
    std::error_code error;
    std::filesystem::directory_iterator entry(path, error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        if (const std::optional<pid_t> number = PidOf(entry->path().filename().native())) {
            numbers.push_back(*number);
        }
        entry.increment(error);
    }
    return error ? Result<std::vector<pid_t>>(error) : numbers;
}

}  // namespace

Result<std::vector<pid_t>> ListProcesses() {
    return ListNumbers("/proc");
}

std::vector<pid_t> ListThreads(pid_t pid) {
    return ListNumbers(ProcessFilePath(pid, "task")).ValueOr({});
}

std::error_code ProcessList::ForEach(const std::function<void(pid_t, ino_t)>& visit) {
    if (!directory_) {
        directory_.reset(opendir("/proc"));
    }
    if (!directory_) {
        return LastError();
    }
    rewinddir(directory_.get());
    pid_t last = 0;
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this object's own.
    while (const dirent* entry = readdir(directory_.get())) {
        const std::optional<pid_t> pid = PidOf(entry->d_name);
        if (pid && *pid > last) {
            last = *pid;
            visit(*pid, entry->d_ino);
        }
        errno = 0;
    }
    return LastError();
}

std::optional<int64_t> BirthCounter::Read() {
    // Several kilobytes of interrupt counters, more on larger machines, come before it.
    constexpr size_t kFirstSize = 16384;
    constexpr size_t kLargestSize = 1 << 20;
    if (!stat_) {
        stat_ = UniqueFd(open("/proc/stat", O_RDONLY | O_CLOEXEC));
        buffer_.resize(kFirstSize);
    }
    Result<std::string_view> stat = ReadOpenFile(stat_, buffer_);
    while (stat && stat->size() == buffer_.size() && buffer_.size() < kLargestSize) {
        buffer_.resize(buffer_.size() * 2);
        stat = ReadOpenFile(stat_, buffer_);
    }
    return stat ? NumberOfLine(*stat, "processes") : std::nullopt;
}

}  // namespace KITE::Linux
