#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/file.h"
#include "base/unique_fd.h"

// The files below /proc/PID, and the numbers in them. A process chooses parts of the texts, so nothing is
// believed: whatever is not as expected, a number that is cut off at the end included, is absent. Any thread.
namespace KITE::Linux {

std::string ProcessFilePath(pid_t pid, std::string_view name);

// Whether an error says that the process is gone, as opposed to: it may not be read.
bool MeansGone(const std::error_code& error);

Result<UniqueFd> OpenProcessFile(pid_t pid, std::string_view name);
// Reads into the buffer what the file holds now, as far as the buffer goes. A kept descriptor of "cmdline",
// "statm" or "io" answers for the process that it was opened for, never for a later one of the same number,
// and follows it through exec.
Result<std::string_view> ReadOpenFile(const UniqueFd& file, std::span<char> buffer);
// Opens, reads and closes.
Result<std::string_view> ReadProcessFile(pid_t pid, std::string_view name, std::span<char> buffer);

// The first number of the line that begins with the key, colon included ("write_bytes:", "Pss:", "Uid:").
std::optional<int64_t> NumberOfLine(std::string_view text, std::string_view key);
// Of "statm".
std::optional<int64_t> ResidentPagesOf(std::string_view statm);

}  // namespace KITE::Linux
