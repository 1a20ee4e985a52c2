#include "runtime/log/log_line.h"

#include <algorithm>
#include <cstdio>

#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

constexpr Log::Site kDropSite{"log_line", "DropNotice", __LINE__};

// Replaces the end of a full buffer by a mark, without cutting a UTF-8 character in two.
std::string_view Cut(std::span<char> buffer, size_t wholeLength) {
    char mark[64];
    const auto markLength =
        static_cast<size_t>(std::snprintf(mark, sizeof(mark), " [cut: %zu bytes in all]", wholeLength));
    size_t kept = buffer.size() - markLength;
    for (int i = 0; i < 3 && (buffer[kept] & 0xC0) == 0x80; ++i) {
        --kept;
    }
    std::copy_n(mark, markLength, buffer.begin() + static_cast<ptrdiff_t>(kept));
    return {buffer.data(), kept + markLength};
}

}  // namespace

std::string_view FormatLogText(std::span<char> buffer, const Log::Site& site, const char* format,
                               va_list arguments) {
    // A site has short names.
    const int prefixLength =
        std::snprintf(buffer.data(), buffer.size(), "[%s(%s):%d] ", site.unit, site.function, site.line);
    const size_t prefix = std::min(static_cast<size_t>(prefixLength), buffer.size() - 1);
    const std::span<char> rest = buffer.subspan(prefix);
    const int length = std::vsnprintf(rest.data(), rest.size(), format, arguments);
    if (length < 0) {
        return "[this log line cannot be formatted]";
    }
    const size_t wholeLength = prefix + static_cast<size_t>(length);
    return wholeLength < buffer.size() ? std::string_view(buffer.data(), wholeLength)
                                       : Cut(buffer, wholeLength);
}

LogLine DropNotice(std::span<char> buffer, uint64_t count) {
    const int length = std::snprintf(buffer.data(), buffer.size(), "[%s(%s):%d] %lu log lines were dropped",
                                     kDropSite.unit, kDropSite.function, kDropSite.line, count);
    return {Log::Level::kWarning, kPlatformLabel, kDropSite, {buffer.data(), static_cast<size_t>(length)}};
}

}  // namespace KITE::Linux
