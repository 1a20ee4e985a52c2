#include "proc/process_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include "proc/proc_texts.h"

namespace KITE::Linux::Sampling {

namespace {

constexpr int64_t kMostPid = 1 << 22;  // the kernel's own limit

// 0 for a name that is no pid.
pid_t PidOf(const char* name) {
    pid_t pid = 0;
    const char* end = name + std::strlen(name);
    const auto [rest, error] = std::from_chars(name, end, pid);
    return error == std::errc() && rest == end ? pid : 0;
}

}  // namespace

bool MeansGone(int error) {
    return error == ESRCH || error == ENOENT;
}

UniqueFd OpenProcFile(pid_t pid, const char* name) {
    char path[64];
    std::snprintf(path, sizeof(path), "/proc/%d/%s", pid, name);
    return UniqueFd(open(path, O_RDONLY | O_CLOEXEC));
}

ReadText ReadProcFile(const UniqueFd& file, std::span<char> buffer, off_t offset) {
    ssize_t length = -1;
    do {
        length = pread(file.Get(), buffer.data(), buffer.size(), offset);
    } while (length < 0 && errno == EINTR);
    if (length < 0) {
        return {{}, errno};
    }
    return {{buffer.data(), static_cast<size_t>(length)}, 0};
}

ReadText ReadProcFileOnce(pid_t pid, const char* name, std::span<char> buffer) {
    const UniqueFd file = OpenProcFile(pid, name);
    return file ? ReadProcFile(file, buffer) : ReadText{{}, errno};
}

std::optional<Births> BirthCounter::Read() {
    // Several kilobytes of interrupt counters, more on larger machines, come before it.
    constexpr size_t kFirstSize = 16384;
    constexpr size_t kLargestSize = 1 << 20;
    if (!stat_) {
        stat_ = UniqueFd(open("/proc/stat", O_RDONLY | O_CLOEXEC));
        loadavg_ = UniqueFd(open("/proc/loadavg", O_RDONLY | O_CLOEXEC));
        buffer_.resize(kFirstSize);
    }
    ReadText stat = ReadProcFile(stat_, buffer_);
    while (stat.text.size() == buffer_.size() && buffer_.size() < kLargestSize) {
        buffer_.resize(buffer_.size() * 2);
        stat = ReadProcFile(stat_, buffer_);
    }
    const std::optional<int64_t> count = NumberOfLine(stat.text, "processes");
    const std::optional<int64_t> newest = NewestPidOf(ReadProcFile(loadavg_, buffer_).text);
    if (!count || !newest || *newest > kMostPid) {
        return std::nullopt;
    }
    return Births{*count, static_cast<pid_t>(*newest)};
}

bool ProcessList::ForEach(pid_t after, pid_t newest, const std::function<void(pid_t, ino_t)>& visit) {
    if (!directory_) {
        directory_ = UniqueFd(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    off_t offset = place_.pid <= after ? place_.offset : 0;
    if (!directory_ || lseek(directory_.Get(), offset, SEEK_SET) != offset) {
        return false;
    }
    pid_t last = after;
    ssize_t length = 0;
    while ((length = getdents64(directory_.Get(), entries_.data(), entries_.size())) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto* entry = reinterpret_cast<const dirent64*>(&entries_[static_cast<size_t>(at)]);
            at += entry->d_reclen;
            const off_t ownOffset = std::exchange(offset, entry->d_off);
            const pid_t pid = PidOf(entry->d_name);
            if (pid <= last) {
                continue;
            }
            if (pid <= newest) {
                place_ = {pid, ownOffset};
            } else if (after > 0) {
                return true;
            }
            last = pid;
            visit(pid, entry->d_ino);
        }
    }
    return length == 0;
}

}  // namespace KITE::Linux::Sampling
