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

// Not open, with errno set, when that fails.
UniqueFd OpenProcessFile(pid_t pid, const char* name);
// Reads into the buffer what the file holds now from the offset on, as far as the buffer goes. A kept
// descriptor of "cmdline", "statm" or "io" answers for the process that it was opened for, never for a later
// one of the same number, and follows it through exec. Not so "smaps_rollup": it stays with the memory that
// it was opened for.
Result<std::string_view> ReadOpenFile(const UniqueFd& file, std::span<char> buffer, off_t offset = 0);
// Opens, reads and closes.
Result<std::string_view> ReadProcessFile(pid_t pid, const char* name, std::span<char> buffer);

// Field number `index`, the first being 0, of a text of fields with one blank between them.
std::optional<int64_t> NumberOfField(std::string_view text, int index);
// The first number of the line that begins with the key, colon included ("write_bytes:", "Pss:", "Uid:").
std::optional<int64_t> NumberOfLine(std::string_view text, std::string_view key);
// Of "statm".
std::optional<int64_t> ResidentPagesOf(std::string_view statm);

}  // namespace KITE::Linux
