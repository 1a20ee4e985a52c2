#pragma once

#include <cstdint>
#include <string>

#include "visibility.h"

namespace KITE::Linux {

// Larger files are refused (EFBIG).
inline constexpr size_t kMaxFileBytes = size_t{64} << 20;

// Whether a read that returns less than was asked for tells the end of the file. Only an empty one does in
// general: some files below /proc hand out a few of their records per read.
enum class EndOfFile { kEmptyRead, kShortRead };

// Reads from the descriptor's position to the end, also where the file does not know its size. 0, or the
// error number with the content as it was.
KITE_API int32_t ReadToEnd(int fd, EndOfFile end, std::string& content);

// Reads the whole file. 0, or the error number with the content as it was. Does not wait for the other end of
// a named pipe.
int32_t ReadWholeFile(const std::string& path, std::string& content);

}  // namespace KITE::Linux
