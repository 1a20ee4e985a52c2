#include "shared/event_follower.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "base/file_names.h"

namespace KITE::Tools {

namespace {

using Linux::UniqueFd;

// No file is longer, nor can a line be.
constexpr size_t kLongestLine = size_t{16} << 20;

struct stat StatusOf(const UniqueFd& file) {
    struct stat status {};
    fstat(file.Get(), &status);
    return status;
}

// EINVAL for what is not a regular file.
Linux::Result<UniqueFd> OpenFile(const std::string& path) {
    UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        return Linux::LastError();
    }
    return S_ISREG(StatusOf(file).st_mode) ? Linux::Result(std::move(file)) : Linux::ErrorOf(EINVAL);
}

auto IdentityOf(const UniqueFd& file) {
    const struct stat status = StatusOf(file);
    return std::pair(status.st_dev, status.st_ino);
}

auto ChangeTimeOf(const UniqueFd& file) {
    const timespec time = StatusOf(file).st_mtim;
    return std::pair(time.tv_sec, time.tv_nsec);
}

}  // namespace

Linux::Result<EventFollower> EventFollower::Open(const std::string& stateDirectory, bool withHistory) {
    EventFollower follower;
    follower.directory_ = stateDirectory;
    follower.path_ = stateDirectory + Linux::FileName::kEvents;
    // Watched before the first look, so that no change falls between the two.
    follower.changes_ = UniqueFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!follower.Watch()) {
        return Linux::Failure(stateDirectory, Linux::LastError());
    }
    auto file = OpenFile(follower.path_);
    if (!file && !Linux::Is(file.Code(), ENOENT)) {
        return file.Why().In(follower.path_);
    }
    auto predecessor = withHistory ? OpenFile(follower.path_ + ".1") : Linux::ErrorOf(ENOENT);
    if (predecessor) {
        follower.Begin(std::move(*predecessor));
    } else if (file) {
        follower.Begin(std::move(*file));
        follower.position_ = withHistory ? 0 : StatusOf(follower.file_).st_size;
    }
    return follower;
}

bool EventFollower::Read(const Take& take) {
    // What has changed is seen from the files; the changes are read so that the next one is noticed.
    std::array<char, 4096> changes;
    while (read(changes_.Get(), changes.data(), changes.size()) > 0) {
    }
    // Again, in case that the directory is another one by now.
    const bool isThere = Watch();
    do {
        ReadToEnd(take);
    } while (Advance(take));
    return isThere;
}

bool EventFollower::Watch() const {
    return inotify_add_watch(changes_.Get(), directory_.c_str(),
                             IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) >= 0;
}

void EventFollower::ReadToEnd(const Take& take) {
    if (!file_) {
        return;
    }
    // What could not be written whole is taken back by its writer.
    if (const off_t size = StatusOf(file_).st_size; size < position_) {
        position_ = size;
        unfinished_.clear();
    }
    std::array<char, 65536> buffer;
    for (ssize_t size = 0; (size = pread(file_.Get(), buffer.data(), buffer.size(), position_)) > 0;) {
        position_ += size;
        unfinished_.append(buffer.data(), static_cast<size_t>(size));
        size_t begin = 0;
        for (size_t end = 0; (end = unfinished_.find('\n', begin)) != std::string::npos; begin = end + 1) {
            take(std::string_view(unfinished_).substr(begin, end - begin));
        }
        unfinished_.erase(0, unfinished_.size() - begin > kLongestLine ? std::string::npos : begin);
    }
}

bool EventFollower::Advance(const Take& take) {
    auto current = OpenFile(path_);
    if (!current || (file_ && IdentityOf(*current) == IdentityOf(file_))) {
        return false;
    }
    // The last line may have come between the look at the file and its end.
    ReadToEnd(take);
    // A whole file came and went since the last look, unless the predecessor has been read or is older.
    auto predecessor = OpenFile(path_ + ".1");
    const bool isNews = file_ && predecessor && IdentityOf(*predecessor) != IdentityOf(file_) &&
                        ChangeTimeOf(file_) < ChangeTimeOf(*predecessor);
    Begin(std::move(isNews ? *predecessor : *current));
    return true;
}

void EventFollower::Begin(UniqueFd file) {
    file_ = std::move(file);
    position_ = 0;
    unfinished_.clear();
}

}  // namespace KITE::Tools
