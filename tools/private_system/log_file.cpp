#include "private_system/log_file.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/file.h"

namespace KITE::Tools {

namespace {

std::string ReadFrom(const std::string& path, size_t position) {
    const Linux::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    lseek(file.Get(), static_cast<off_t>(position), SEEK_SET);
    return Linux::ReadFile(file.Get()).ValueOr("");
}

}  // namespace

LogFile::LogFile(std::string path)
    : path_(std::move(path)),
      file_(open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)),
      changes_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    inotify_add_watch(changes_.Get(), path_.c_str(), IN_MODIFY);
}

std::string LogFile::Text() const {
    return ReadFrom(path_, 0);
}

bool LogFile::Await(std::string_view text, milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (true) {
        const size_t found = ReadFrom(path_, position_).find(text);
        if (found != std::string::npos) {
            position_ += found + text.size();
            return true;
        }
        const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
        if (!AwaitReadable(changes_.Get(), left)) {
            return false;
        }
        std::array<char, 4096> events;
        while (read(changes_.Get(), events.data(), events.size()) > 0) {
        }
    }
}

}  // namespace KITE::Tools
