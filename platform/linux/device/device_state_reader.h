#pragma once

#include <string_view>

#include "base/result.h"
#include "device/device_state.h"

namespace KITE::Linux {

// Reads a state from its JSON text. Fails with the first fault and its place.
KITE_API Result<DeviceState> ReadDeviceState(std::string_view text);

}  // namespace KITE::Linux
