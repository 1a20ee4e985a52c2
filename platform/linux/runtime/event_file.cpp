#include "runtime/event_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "runtime/unique_fd.h"
#include "time_service.h"

namespace KITE {

namespace {

constexpr size_t kMaxFileBytes = size_t{8} << 20;

std::string LineOf(std::string_view domain, std::string_view name, int32_t type,
                   const std::vector<EventField>& fields) {
    nlohmann::ordered_json event = {{"time", TimeServiceClient::GetInstance().GetWallTimeMs()},
                                    {"domain", domain},
                                    {"name", name},
                                    {"type", type}};
    for (const EventField& field : fields) {
        std::visit([&](const auto& value) { event.emplace(std::string(field.key), value); }, field.value);
    }
    return event.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

// Opens the file for appending and finds its size; fails (errno) for what is not a regular file.
Linux::UniqueFd OpenForAppending(const std::string& path, size_t& size) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    Linux::UniqueFd file(open(path.c_str(), kFlags, 0640));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return {};
    }
    size = static_cast<size_t>(status.st_size);
    return file;
}

// A line is there as a whole or not at all.
int32_t WriteLine(int fd, size_t sizeBefore, std::string_view line) {
    const ssize_t written = write(fd, line.data(), line.size());
    if (written == static_cast<ssize_t>(line.size())) {
        return 0;
    }
    const int32_t failure = written < 0 ? errno : ENOSPC;
    return ftruncate(fd, static_cast<off_t>(sizeBefore)) != 0 && written > 0 ? EIO : failure;
}

int32_t Append(const std::string& path, std::string_view line) {
    static std::mutex rotation;
    const std::lock_guard lock(rotation);
    size_t size = 0;
    Linux::UniqueFd file = OpenForAppending(path, size);
    if (file && size != 0 && size + line.size() > kMaxFileBytes) {
        if (std::rename(path.c_str(), (path + ".1").c_str()) != 0) {
            return errno;
        }
        file = OpenForAppending(path, size);
    }
    return file ? WriteLine(file.Get(), size, line) : errno;
}

}  // namespace

int32_t Linux::RecordEvent(std::string_view domain, std::string_view name, int32_t type,
                           const std::vector<EventField>& fields) {
    std::string line = LineOf(domain, name, type, fields);
    const std::string path = GetSettings().stateDirectory + "/events.jsonl";
    const int32_t failure = Append(path, line);
    line.pop_back();
    PLATFORM_LOGI("event %{public}s", line.c_str());
    if (failure != 0) {
        PLATFORM_LOGE("the event is not in %{public}s: %{public}s", path.c_str(), strerrordesc_np(failure));
    }
    return failure;
}

int32_t QuillRec::Write(std::string_view domain, std::string_view name, EventType type,
                        const std::vector<EventField>& fields) {
    return Linux::RecordEvent(domain, name, static_cast<int32_t>(type), fields);
}

}  // namespace KITE
