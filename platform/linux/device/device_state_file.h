#pragma once

#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "device/device_state.h"

namespace KITE::Linux {

// Keeps the state that a file holds, reading it again when the file changes. Any thread.
class DeviceStateFile {
  public:
    // See CurrentDeviceState.
    std::shared_ptr<const DeviceState> Current(const std::string& path);

  private:
    // What changes when a file is written or replaced.
    struct Version {
        dev_t device;
        ino_t inode;
        off_t size;
        int64_t modified;  // ns since the epoch
        int64_t changed;   // likewise, of the file's status

        bool operator==(const Version&) const = default;
    };

    static Version VersionOf(const struct stat& status);
    void Refresh(const std::string& path);
    void Read(const std::string& path, int fd);
    void Use(const std::string& path, std::string text);
    void Forget();
    void Complain(const std::string& path, std::string fault);

    std::mutex mutex_;  // guards all members
    std::shared_ptr<const DeviceState> state_ = std::make_shared<const DeviceState>();
    std::optional<Version> version_;   // of the text; none if the file could still change unnoticed
    std::optional<std::string> text_;  // as read last, good or bad
    std::string complaint_;            // the last one, not to be repeated
};

}  // namespace KITE::Linux
