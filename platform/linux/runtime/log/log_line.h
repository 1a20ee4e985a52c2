#pragma once

#include <cstdarg>
#include <cstdint>
#include <span>
#include <string_view>

#include "system_log.h"

namespace KITE::Linux {

// One line of the system log. Refers to texts of its maker.
struct LogLine {
    Log::Level level;
    Log::Label label;
    Log::Site site;
    std::string_view text;
};

// A longer text is cut to this size and says so at its end.
inline constexpr size_t kMaxLogText = size_t{32} << 10;

// The prefix and the message, in the buffer of 256 bytes or more; a text that is cut to fit says so.
std::string_view FormatLogText(std::span<char> buffer, const Log::Site& site, const char* format,
                               va_list arguments);

// The line that tells how many lines were dropped before it. The buffer holds 256 bytes or more.
LogLine DropNotice(std::span<char> buffer, uint64_t count);

}  // namespace KITE::Linux
