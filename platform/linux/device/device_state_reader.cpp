#include "device/device_state_reader.h"

#include "base/json_node.h"

namespace KITE::Linux {

namespace {

int32_t ReadUid(const JsonNode& entry) {
    return entry.Required("uid").Number<int32_t>(0);
}

int32_t ReadPid(const JsonNode& entry) {
    return entry.Required("pid").Number<int32_t>(1);
}

template <typename T>
std::vector<T> ReadNumbers(const JsonNode& list, T minimum) {
    std::vector<T> numbers;
    for (const JsonNode& element : list.Elements()) {
        numbers.push_back(element.Number<T>(minimum));
    }
    return numbers;
}

DeviceState::Application ReadApplication(const JsonNode& entry) {
    entry.AllowKeys({"uid", "processes", "render_processes", "foreground", "visible_window"});
    return {ReadUid(entry), ReadNumbers<int32_t>(entry.Optional("processes"), 1),
            ReadNumbers<int32_t>(entry.Optional("render_processes"), 1),
            entry.Optional("foreground").Bool(false), entry.Optional("visible_window").Bool(false)};
}

DeviceState::Extension ReadExtension(const JsonNode& entry) {
    entry.AllowKeys({"uid", "pid"});
    return {ReadUid(entry), ReadPid(entry)};
}

DeviceState::ContinuousTask ReadContinuousTask(const JsonNode& entry) {
    entry.AllowKeys({"uid", "pid", "types"});
    return {ReadUid(entry), ReadPid(entry), ReadNumbers<uint32_t>(entry.Optional("types"), 0)};
}

DeviceState::EfficiencyResource ReadEfficiencyResource(const JsonNode& entry) {
    entry.AllowKeys({"uid", "pid", "resources"});
    return {ReadUid(entry), ReadPid(entry), entry.Required("resources").Number<uint32_t>(0)};
}

template <typename T>
std::vector<T> ReadList(const JsonNode& list, T (*read)(const JsonNode&)) {
    std::vector<T> entries;
    for (const JsonNode& element : list.Elements()) {
        entries.push_back(read(element));
    }
    return entries;
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

}  // namespace

Result<DeviceState> ReadDeviceState(std::string_view text) {
    return ReadJson(text, ReadState);
}

}  // namespace KITE::Linux
