#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace KITE::Rqctl {

// What a value says, by the kind that its key takes.
enum class ValueKind : uint8_t { kSwitch, kList, kNumber };

// A key of "rqctl device", and where its value stands in the device state.
struct DeviceKey {
    std::string_view name;
    size_t ids;  // how many numbers stand behind it: none, a uid, a uid and a pid
    ValueKind kind;
    // The list that holds the entry; for a switch or a list within an application, its member there.
    std::string_view list;
    std::string_view member;
};

// A key and a value of the command line.
struct DeviceSetting {
    const DeviceKey* key = nullptr;
    std::vector<int64_t> ids;
    bool isOn = false;
    std::vector<int64_t> values;  // empty for "none"
};

// Fails with what is wrong with the key or the value.
Linux::Result<DeviceSetting> ParseDeviceSetting(std::string_view key, std::string_view value);

// Changes the document of a device state. Its other members stay as they are.
void Apply(const DeviceSetting& setting, nlohmann::ordered_json& state);

}  // namespace KITE::Rqctl
