#include "treatments/control_groups.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <thread>

#include "base/file.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "proc/pidfd.h"
#include "proc/process_file.h"

namespace KITE::Linux {

namespace {

// mountinfo has blanks and backslashes as "\040" and "\134". Names of units may have a backslash.
std::string Unescape(std::string_view text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        auto character = static_cast<unsigned char>(text[i]);
        if (text[i] == '\\' && i + 3 < text.size()) {
            std::from_chars(&text[i + 1], &text[i + 3] + 1, character, 8);
            i += 3;
        }
        plain += static_cast<char>(character);
    }
    return plain;
}

constexpr size_t kProcFileLimit = 4 << 20;
constexpr const char* kProcsFile = "cgroup.procs";

bool HasPart(std::string_view text, char separator, std::string_view part) {
    const std::vector<std::string_view> parts = Split(text, separator);
    return std::ranges::find(parts, part) != parts.end();
}

// What tells a hierarchy in mountinfo and in /proc/PID/cgroup.
bool IsCpuV1(std::string_view controllers) {
    return HasPart(controllers, ',', "cpu");
}

bool IsWellFormed(std::string_view path) {
    const bool isPrintable = std::ranges::all_of(path, [](char byte) { return byte >= ' ' && byte <= '~'; });
    return path.starts_with('/') && isPrintable && !HasPart(path, '/', "..") && !HasPart(path, '/', ".");
}

std::string FilePath(const Group& group, std::string_view file) {
    return group.path + "/" + std::string(file);
}

std::error_code WriteExisting(const std::string& path, std::string_view value) {
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    return file ? WriteAll(file.Get(), value) : LastError();
}

// A v1 hierarchy lets only its own user or an effective root move a process; no capability replaces that.
// Being root for a while would cost this process its other capabilities, so a thread becomes root alone, by
// the bare system call (the C library's changes all threads), and ends when it has written. Needs CAP_SETUID.
std::error_code WriteAsRoot(const std::string& path, std::string_view value) {
    std::error_code error;
    try {
        std::thread([&] {
            const bool isRoot = syscall(SYS_setresuid, -1, 0, -1) == 0;
            error = isRoot ? WriteExisting(path, value) : ErrorOf(EACCES);
        }).join();
    } catch (const std::system_error& failure) {
        error = failure.code();
    }
    return error;
}

std::vector<pid_t> ProcessesIn(const Group& group) {
    std::vector<pid_t> processes;
    const std::string text = ReadFile(FilePath(group, kProcsFile), kProcFileLimit).ValueOr({});
    for (const std::string_view line : Split(text, '\n')) {
        // A process of a foreign pid namespace reads as 0.
        const std::optional<int64_t> pid = ParseDecimal(line);
        if (pid && *pid > 0) {
            processes.push_back(static_cast<pid_t>(*pid));
        }
    }
    return processes;
}

// Also true when that cannot be known. A group's directory is linked by itself, its parent and each child.
bool HasChildGroups(const Group& group) {
    struct stat status {};
    return stat(group.path.c_str(), &status) != 0 || status.st_nlink > 2;
}

bool IsMarkedDelegated(const std::string& path) {
    char mark = 0;
    return (getxattr(path.c_str(), "user.delegate", &mark, 1) == 1 && mark == '1') ||
           (getxattr(path.c_str(), "trusted.delegate", &mark, 1) == 1 && mark == '1');
}

}  // namespace

Cgroups Cgroups::OfThisMachine() {
    // Without the file there are no groups to use, and the forms without groups remain.
    const std::string mountinfo = ReadFile("/proc/self/mountinfo", kProcFileLimit).ValueOr({});
    return {mountinfo, access("/run/systemd/system", F_OK) == 0};
}

Cgroups::Cgroups(std::string_view mountinfo, bool managerRuns) : managerRuns_(managerRuns) {
    for (const std::string_view line : Split(mountinfo, '\n')) {
        const size_t middle = line.find(" - ");
        if (middle == std::string_view::npos) {
            continue;
        }
        const std::vector<std::string_view> place = Split(line.substr(0, middle), ' ');
        const std::vector<std::string_view> what = Split(line.substr(middle + 3), ' ');
        if (place.size() < 5 || what.size() < 3) {
            continue;
        }
        const bool isCpuV1 = what[0] == "cgroup" && IsCpuV1(what[2]);
        if (isCpuV1 || what[0] == "cgroup2") {
            const std::string_view root = place[3] == "/" ? std::string_view() : place[3];
            mounts_.push_back(
                {isCpuV1 ? Hierarchy::kCpuV1 : Hierarchy::kUnified, Unescape(root), Unescape(place[4])});
        }
    }
}

const Cgroups::Mount* Cgroups::Find(Hierarchy hierarchy) const {
    const auto found = std::ranges::find(mounts_, hierarchy, &Mount::hierarchy);
    return found == mounts_.end() ? nullptr : &*found;
}

std::optional<Group> Cgroups::GroupAt(Hierarchy hierarchy, std::string_view pathInHierarchy) const {
    const Mount* mount = Find(hierarchy);
    if (mount == nullptr || !IsWellFormed(pathInHierarchy) || !pathInHierarchy.starts_with(mount->root)) {
        return std::nullopt;
    }
    pathInHierarchy.remove_prefix(mount->root.size());
    if (pathInHierarchy == "/") {
        pathInHierarchy = {};
    }
    const bool isBelow = pathInHierarchy.empty() || pathInHierarchy.starts_with('/');
    return isBelow ? std::optional(Group{hierarchy, mount->point + std::string(pathInHierarchy)})
                   : std::nullopt;
}

std::optional<Group> Cgroups::GroupOf(pid_t pid, Hierarchy hierarchy) const {
    const std::string text = ReadFile(ProcessFilePath(pid, "cgroup"), kProcFileLimit).ValueOr({});
    for (const std::string_view line : Split(text, '\n')) {
        // A number, the controllers and the path, which may have colons of its own.
        const std::vector<std::string_view> parts = Split(line, ':');
        const bool isUnified = parts.size() > 2 && parts[0] == "0" && parts[1].empty();
        const bool isIt =
            hierarchy == Hierarchy::kUnified ? isUnified : parts.size() > 2 && IsCpuV1(parts[1]);
        if (isIt) {
            return GroupAt(hierarchy, line.substr(parts[0].size() + parts[1].size() + 2));
        }
    }
    return std::nullopt;
}

bool Cgroups::IsBelowRoot(const Group& group) const {
    const Mount* mount = Find(group.hierarchy);
    return mount != nullptr && IsWellFormed(group.path) && group.path.starts_with(mount->point + "/") &&
           group.path.size() > mount->point.size() + 1;
}

bool Cgroups::IsReachable(Hierarchy hierarchy) const {
    const Mount* mount = Find(hierarchy);
    return mount != nullptr && access((mount->point + "/" + kProcsFile).c_str(), F_OK) == 0;
}

bool Cgroups::IsOwnedByManager(const Group& group) const {
    if (!managerRuns_) {
        return false;
    }
    for (Group above = group; IsBelowRoot(above); above = ParentOf(above)) {
        if (IsMarkedDelegated(above.path)) {
            return false;
        }
    }
    return true;
}

Group ParentOf(const Group& group) {
    return {group.hierarchy, group.path.substr(0, group.path.rfind('/'))};
}

bool IsAloneIn(const Group& group, pid_t pid) {
    return ProcessesIn(group) == std::vector<pid_t>{pid} && !HasChildGroups(group);
}

std::optional<std::string> ReadGroupFile(const Group& group, std::string_view file) {
    Result<std::string> text = ReadFile(FilePath(group, file), kProcFileLimit);
    if (!text) {
        return std::nullopt;
    }
    while (text->ends_with('\n')) {
        text->pop_back();
    }
    return *text;
}

std::error_code WriteGroupFile(const Group& group, std::string_view file, std::string_view value) {
    return WriteExisting(FilePath(group, file), value);
}

std::error_code CreateGroup(const Group& group) {
    const bool isThere = mkdir(group.path.c_str(), 0755) == 0 || errno == EEXIST;
    return isThere ? std::error_code() : LastError();
}

std::error_code RemoveGroup(const Group& group) {
    // A group is busy until its last task is off the processor, which a v1 hierarchy does not announce.
    constexpr int kAttempts = 20;
    constexpr int kPauseMs = 1;
    std::error_code error;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        error = rmdir(group.path.c_str()) == 0 || errno == ENOENT ? std::error_code() : LastError();
        if (!Is(error, EBUSY) || HasChildGroups(group)) {
            return error;
        }
        poll(nullptr, 0, kPauseMs);
    }
    return error;
}

std::error_code MoveProcess(pid_t pid, const Group& group) {
    const std::string number = std::to_string(pid);
    const std::error_code error = WriteGroupFile(group, kProcsFile, number);
    const bool needsRoot = Is(error, EACCES) && group.hierarchy == Hierarchy::kCpuV1;
    return needsRoot ? WriteAsRoot(FilePath(group, kProcsFile), number) : error;
}

std::error_code MoveAll(const Group& from, const Group& to) {
    constexpr int kRounds = 100;
    for (int round = 0; round < kRounds; ++round) {
        const std::vector<pid_t> processes = ProcessesIn(from);
        if (processes.empty()) {
            return {};
        }
        for (const pid_t pid : processes) {
            const std::error_code error = MoveProcess(pid, to);
            if (error && !Is(error, ESRCH)) {
                return error;
            }
        }
    }
    return ErrorOf(EBUSY);
}

std::error_code AwaitFrozen(const Group& group, int pidfd) {
    // Threads stop at once, long before the kernel announces it, which it does with a delay and not often. So
    // this looks for itself. It sleeps between the looks: a thread that waits without sleeping keeps the
    // processor from threads of another session or group that have to stop.
    constexpr timespec kBetweenLooks{0, 50'000};
    const auto limit = std::chrono::steady_clock::now() + kFreezerLimit;
    while (true) {
        const std::optional<std::string> events = ReadGroupFile(group, "cgroup.events");
        if (!events || HasPart(*events, '\n', "frozen 1")) {
            return events ? std::error_code() : ErrorOf(ENOENT);
        }
        if (std::chrono::steady_clock::now() >= limit) {
            return ErrorOf(ETIMEDOUT);
        }
        pollfd process{pidfd, POLLIN, 0};
        if (ppoll(&process, 1, &kBetweenLooks, nullptr) > 0) {
            return ErrorOf(ESRCH);
        }
    }
}

}  // namespace KITE::Linux
