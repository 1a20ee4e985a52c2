#pragma once

#include <cstdarg>
#include <string>

namespace KITE::Log {

// The whole formatted line, however long.
std::string FormatLine(const char* format, va_list arguments);

}  // namespace KITE::Log
