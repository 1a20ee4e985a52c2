#include "log_format.h"

#include <cstdio>

#include "system_log.h"

namespace KITE::Log {

constinit std::atomic<Level> minimumLevel{Level::kInfo};

std::string FormatLine(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    std::string line(256, '\0');
    const int length = std::vsnprintf(line.data(), line.size() + 1, format, arguments);
    if (length > static_cast<int>(line.size())) {
        line.resize(static_cast<size_t>(length));
        std::vsnprintf(line.data(), line.size() + 1, format, again);
    } else {
        line.resize(length < 0 ? 0 : static_cast<size_t>(length));
    }
    va_end(again);
    return line;
}

}  // namespace KITE::Log
