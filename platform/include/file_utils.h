#pragma once

#include <string>

#include "visibility.h"

namespace KITE {

// Reads a whole file. False, with the content untouched, when it cannot be read. Any thread.
KITE_API bool LoadStringFromFile(const std::string& path, std::string& content);

// Writes the whole text to a descriptor, which stays the caller's. False when not all of it could be written,
// for example because the reader did not take it in time. Any thread.
KITE_API bool SaveStringToFd(int fd, const std::string& content);

}  // namespace KITE
