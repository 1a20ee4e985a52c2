#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

#include "base/result.h"

// Whole files and whole texts. Any thread.
namespace KITE::Linux {

inline constexpr size_t kLargestFile = size_t{64} << 20;

// The content of a file, whatever size the file system tells; EFBIG when it is longer than the limit. Does
// not wait for the other end of a named pipe.
Result<std::string> ReadFile(const std::string& path, size_t limit = kLargestFile);
// Likewise, from the descriptor's position to the end.
Result<std::string> ReadFile(int fd, size_t limit = kLargestFile);

// Writes all of the text, however many calls that takes. Waits as the descriptor does.
std::error_code WriteAll(int fd, std::string_view text);
// Makes the file hold this text alone. A new file gets the mode 0644, cut by the process's umask. Not atomic.
std::error_code WriteFile(const std::string& path, std::string_view text);

}  // namespace KITE::Linux
