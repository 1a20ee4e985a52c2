#pragma once

#include <string>
#include <string_view>
#include <system_error>

namespace KITE::Linux {

// Appends lines to a file of bounded size: one that would outgrow 8 MiB is first renamed to PATH.1, in place
// of the one before it. The lines are there as a whole or not at all. A symbolic link is refused. Waits for
// nothing but the file system. Any thread; one process may write to a path.
std::error_code AppendLines(const std::string& path, std::string_view lines);

}  // namespace KITE::Linux
