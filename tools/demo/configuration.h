#pragma once

#include <filesystem>
#include <vector>

#include "base/result.h"

namespace KITE::Demo {

// Writes the configuration into `etc`: that of the directory `shipped`, with samples recorded, and with the
// layers in place of the shipped ones where there are any.
Linux::Result<void> WriteConfiguration(const std::filesystem::path& etc, const std::filesystem::path& shipped,
                                       const std::vector<std::filesystem::path>& layers);

}  // namespace KITE::Demo
