#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

#include "base/result.h"

namespace KITE::Rqctl {

struct DeviceKey;

// A key and a value of the command line.
struct DeviceSetting {
    const DeviceKey* key = nullptr;
    nlohmann::ordered_json identity;  // of the entry: {"uid": N}, or {"uid": N, "pid": M}
    nlohmann::ordered_json value;     // a boolean, a list or a number; an empty list for "none"
};

// Fails with what is wrong with the key or the value.
Linux::Result<DeviceSetting> ParseDeviceSetting(std::string_view key, std::string_view value);

// Changes the document of a device state. Its other members stay as they are.
void Apply(const DeviceSetting& setting, nlohmann::ordered_json& state);

}  // namespace KITE::Rqctl
