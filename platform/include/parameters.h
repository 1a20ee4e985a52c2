#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "visibility.h"

namespace KITE {

// The system parameter store: texts by key. Any thread.

// True for "1", "y", "yes", "on" and "true", false for "0", "n", "no", "off" and "false"; the default when
// the parameter is absent or holds anything else.
KITE_API bool GetBoolParameter(const std::string& key, bool defaultValue);

// The parameter as a decimal number; the default when it is absent, is not a number, or lies outside
// [minimum, maximum].
KITE_API int32_t GetIntParameter(const std::string& key, int32_t defaultValue,
                                 int32_t minimum = std::numeric_limits<int32_t>::min(),
                                 int32_t maximum = std::numeric_limits<int32_t>::max());

}  // namespace KITE
