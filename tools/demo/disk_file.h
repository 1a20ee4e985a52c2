#pragma once

#include <filesystem>

#include "base/unique_fd.h"

namespace KITE::Demo {

// A file without a name, on a disk where what is written counts as sent to storage: not so on tmpfs. Prefers
// the directory. None where no such disk is found.
Linux::UniqueFd MakeFileOnDisk(const std::filesystem::path& directory);

}  // namespace KITE::Demo
