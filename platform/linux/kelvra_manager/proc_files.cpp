#include "kelvra_manager/proc_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace KITE::Linux::Sampling {

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

bool ProcessList::ForEach(const std::function<void(pid_t, ino_t)>& visit) {
    if (directory_) {
        rewinddir(directory_.get());
    } else {
        directory_.reset(opendir("/proc"));
    }
    if (!directory_) {
        return false;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): safe as long as no other thread reads the same stream
    while (const dirent* entry = readdir(directory_.get())) {
        pid_t pid = 0;
        const char* end = entry->d_name + std::strlen(entry->d_name);
        const auto [rest, error] = std::from_chars(entry->d_name, end, pid);
        if (error == std::errc() && rest == end && pid > 0) {
            visit(pid, entry->d_ino);
        }
    }
    return true;
}

}  // namespace KITE::Linux::Sampling
