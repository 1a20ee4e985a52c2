#include "device/device_state_file.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <utility>

#include "base/file.h"
#include "base/unique_fd.h"
#include "device/device_state_reader.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

// File times advance in steps of a timer tick, up to 10 ms. Within one step a file can change and still look
// the same.
constexpr std::chrono::milliseconds kSettled{50};

int64_t Nanoseconds(const timespec& time) {
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

bool HasSettled(int64_t changed) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);  // which file times are taken from
    return std::chrono::nanoseconds(Nanoseconds(now) - changed) > kSettled;
}

}  // namespace

std::shared_ptr<const DeviceState> DeviceStateFile::Current(const std::string& path) {
    const std::lock_guard lock(mutex_);
    Refresh(path);
    return state_;
}

DeviceStateFile::Version DeviceStateFile::VersionOf(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size, Nanoseconds(status.st_mtim),
            Nanoseconds(status.st_ctim)};
}

void DeviceStateFile::Refresh(const std::string& path) {
    struct stat status {};
    if (version_ && stat(path.c_str(), &status) == 0 && *version_ == VersionOf(status)) {
        return;
    }
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file) {
        Read(path, file.Get());
    } else if (errno == ENOENT) {
        Forget();
    } else {
        Complain(path, LastError().message());
    }
}

void DeviceStateFile::Read(const std::string& path, int fd) {
    version_.reset();
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        Complain(path, "is not a regular file");
        return;
    }
    Result<std::string> text = ReadFile(fd);
    if (!text) {
        Complain(path, text.Why().Text());
        return;
    }
    const Version version = VersionOf(status);
    if (HasSettled(version.changed)) {
        version_ = version;
    }
    if (*text != text_) {
        Use(path, std::move(*text));
    }
}

void DeviceStateFile::Use(const std::string& path, std::string text) {
    complaint_.clear();
    if (Result<DeviceState> state = ReadDeviceState(text)) {
        state_ = std::make_shared<const DeviceState>(std::move(*state));
    } else {
        Complain(path, state.Why().Text());
    }
    text_ = std::move(text);
}

void DeviceStateFile::Forget() {
    version_.reset();
    text_.reset();
    complaint_.clear();
    state_ = std::make_shared<const DeviceState>();
}

void DeviceStateFile::Complain(const std::string& path, std::string fault) {
    if (fault == complaint_) {
        return;
    }
    PLATFORM_LOGE("the last good device state stays: %{public}s: %{public}s", path.c_str(), fault.c_str());
    complaint_ = std::move(fault);
}

}  // namespace KITE::Linux
