#include "device/device_state.h"

#include <mutex>
#include <utility>

#include "base/file.h"
#include "base/file_names.h"
#include "base/immortal.h"
#include "base/json_node.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE::Linux {

namespace {

int32_t ReadUid(const JsonNode& entry) {
    return entry.Required("uid").Number<int32_t>(0);
}

int32_t ReadPid(const JsonNode& entry) {
    return entry.Required("pid").Number<int32_t>(1);
}

std::vector<int32_t> ReadPids(const JsonNode& list) {
    return ReadList(list, [](const JsonNode& pid) { return pid.Number<int32_t>(1); });
}

uint32_t ReadNumber(const JsonNode& number) {
    return number.Number<uint32_t>(0);
}

DeviceState::Application ReadApplication(const JsonNode& entry) {
    entry.AllowKeys({"uid", "processes", "render_processes", "foreground", "visible_window"});
    return {ReadUid(entry), ReadPids(entry.Optional("processes")),
            ReadPids(entry.Optional("render_processes")), entry.Optional("foreground").Bool(false),
            entry.Optional("visible_window").Bool(false)};
}

DeviceState::Extension ReadExtension(const JsonNode& entry) {
    entry.AllowKeys({"uid", "pid"});
    return {ReadUid(entry), ReadPid(entry)};
}

DeviceState::ContinuousTask ReadContinuousTask(const JsonNode& entry) {
    entry.AllowKeys({"uid", "pid", "types"});
    return {ReadUid(entry), ReadPid(entry), ReadList(entry.Optional("types"), ReadNumber)};
}

DeviceState::EfficiencyResource ReadEfficiencyResource(const JsonNode& entry) {
    entry.AllowKeys({"uid", "pid", "resources"});
    return {ReadUid(entry), ReadPid(entry), ReadNumber(entry.Required("resources"))};
}

DeviceState ReadState(const JsonNode& root) {
    DeviceState state;
    root.AllowKeys({"screen_on", "applications", "extensions", "continuous_tasks", "efficiency_resources"});
    state.screenOn = root.Optional("screen_on").Bool(true);
    state.applications = ReadList(root.Optional("applications"), ReadApplication);
    state.extensions = ReadList(root.Optional("extensions"), ReadExtension);
    state.continuousTasks = ReadList(root.Optional("continuous_tasks"), ReadContinuousTask);
    const JsonNode resources = root.Optional("efficiency_resources");
    resources.AllowKeys({"applications", "processes"});
    state.applicationResources = ReadList(resources.Optional("applications"), ReadEfficiencyResource);
    state.processResources = ReadList(resources.Optional("processes"), ReadEfficiencyResource);
    return state;
}

// The file is read for each question: it has some kilobytes, and two writes in one timer tick can leave the
// same file times, so that only its text tells whether it has changed.
class DeviceStateFile {
  public:
    std::shared_ptr<const DeviceState> Current(const std::string& path) {
        const std::lock_guard lock(mutex_);
        Result<std::string> text = ReadFile(path);
        const std::error_code error = Is(text.Code(), ENOENT) ? std::error_code() : text.Code();
        if (error && error != error_) {
            Complain(path, error.message());
        } else if (!error) {
            Use(path, std::move(text).ValueOr("{}"));
        }
        error_ = error;
        return state_;
    }

  private:
    void Use(const std::string& path, std::string text) {
        if (text == text_) {
            return;
        }
        text_ = std::move(text);
        if (Result<DeviceState> state = ReadDeviceState(text_)) {
            state_ = std::make_shared<const DeviceState>(std::move(*state));
        } else {
            Complain(path, state.Why().Text());
        }
    }

    static void Complain(const std::string& path, const std::string& fault) {
        PLATFORM_LOGE("%{public}s cannot be used, the last good device state stays: %{public}s", path.c_str(),
                      fault.c_str());
    }

    std::mutex mutex_;  // guards all members
    std::shared_ptr<const DeviceState> state_ = std::make_shared<const DeviceState>();
    std::string text_ = "{}";  // as read last, good or bad
    std::error_code error_;    // of the last reading
};

}  // namespace

Result<DeviceState> ReadDeviceState(std::string_view text) {
    return ReadJson(text, ReadState);
}

std::shared_ptr<const DeviceState> CurrentDeviceState() {
    static Immortal<DeviceStateFile> file;
    return file.value.Current(GetSettings().stateDirectory + FileName::kDeviceState);
}

}  // namespace KITE::Linux
