#pragma once

#include <string>

#include "device/device_state.h"

namespace KITE::Linux {

// Reads a state from its JSON text. False, with the state unspecified and the first fault and its place in
// `error`, when the text is not a device state.
KITE_API bool ReadDeviceState(const std::string& text, DeviceState& state, std::string& error);

}  // namespace KITE::Linux
