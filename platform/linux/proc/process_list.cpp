#include "proc/process_list.h"

#include <dirent.h>

#include <cerrno>
#include <memory>
#include <optional>

#include "base/text.h"
#include "proc/process_file.h"

namespace KITE::Linux {

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

// Absent for a name that is not a pid.
std::optional<pid_t> PidOf(const char* name) {
    constexpr int64_t kMostPid = 1 << 22;  // the kernel's own limit
    const std::optional<int64_t> number = ParseDecimal(name);
    const bool isPid = number && *number > 0 && *number <= kMostPid;
    return isPid ? std::optional(static_cast<pid_t>(*number)) : std::nullopt;
}

// The entries of a directory that have a pid for a name.
Result<std::vector<ListedProcess>> ListPids(const std::string& path) {
    const std::unique_ptr<DIR, DirectoryCloser> directory(opendir(path.c_str()));
    if (!directory) {
        return LastError();
    }
    std::vector<ListedProcess> listed;
    errno = 0;  // readdir tells its end from a failure by it alone
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this function's own.
    while (const dirent* entry = readdir(directory.get())) {
        if (const std::optional<pid_t> pid = PidOf(entry->d_name)) {
            listed.push_back({*pid, entry->d_ino});
        }
        errno = 0;
    }
    return errno == 0 ? Result<std::vector<ListedProcess>>(std::move(listed)) : LastError();
}

}  // namespace

Result<std::vector<ListedProcess>> ListProcesses() {
    return ListPids("/proc");
}

std::vector<pid_t> ListThreads(pid_t pid) {
    std::vector<pid_t> threads;
    for (const ListedProcess& thread : ListPids(ProcessFilePath(pid, "task")).ValueOr({})) {
        threads.push_back(thread.pid);
    }
    return threads;
}

Result<int64_t> CountBirths() {
    const Result<std::string> stat = ReadFile("/proc/stat");
    if (!stat) {
        return stat.Why();
    }
    const std::optional<int64_t> births = NumberOfLine(*stat, "processes");
    return births ? Result<int64_t>(*births) : ErrorOf(EBADMSG);
}

}  // namespace KITE::Linux
