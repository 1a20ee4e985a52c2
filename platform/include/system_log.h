#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "visibility.h"

// The system log. KITE_LOG writes one line: the prefix "[unit(function):line] ", where the unit is the source
// file's name without directory and extension, and then the formatted message.
//
//     KITE_LOG(KITE::Log::Level::kInfo, label, "pid is %{public}d", pid);
//
// Every conversion carries the mark {public}, since nothing private is logged. A missing or misspelt mark
// does not compile, nor does a conversion that does not fit its argument. Conversions are s (const char*), d
// (int), u (unsigned), ld and lu (64 bits). A line below the minimum level costs one atomic load and
// evaluates no argument. Any thread; never waits; never fails.
namespace KITE::Log {

static_assert(sizeof(long) == sizeof(int64_t), "the formats take 64-bit numbers for long");

enum class Level : int { kDebug, kInfo, kWarning, kError };

// Which part of the system writes the line: its number, and its name for people.
struct Label {
    uint32_t domain;
    const char* tag;
};

// Where it was written.
struct Site {
    const char* unit;
    const char* function;
    int line;
};

// Lines below this level are not written. The program that owns the process sets it.
KITE_API extern std::atomic<Level> minimumLevel;

inline bool IsLoggable(Level level) {
    return level >= minimumLevel.load(std::memory_order_relaxed);
}

// Writes one line; `format` is a printf format that includes the prefix. Use KITE_LOG.
KITE_API void Write(Level level, const Label& label, const Site& site, const char* format, ...);

template <size_t N>
struct Text {
    char text[N] = {};
};

// The name of a source file without directory and extension.
template <size_t N>
consteval Text<N> UnitName(const char (&path)[N]) {
    std::string_view name(path, N - 1);
    name = name.substr(name.find_last_of('/') + 1);
    name = name.substr(0, name.find_last_of('.'));
    Text<N> unit;
    for (size_t i = 0; i < name.size(); ++i) {
        unit.text[i] = name[i];
    }
    return unit;
}

// The printf format without the marks; a conversion without its mark does not compile.
template <size_t N>
consteval Text<N> StripMarks(const char (&marked)[N]) {
    constexpr std::string_view kMark = "{public}";
    const std::string_view from(marked, N - 1);
    Text<N> stripped;
    size_t length = 0;
    for (size_t i = 0; i < from.size(); ++i) {
        stripped.text[length++] = from[i];
        if (from[i] != '%') {
            continue;
        }
        if (from.substr(i + 1, kMark.size()) == kMark) {
            i += kMark.size();
        } else if (from.substr(i + 1, 1) == "%") {
            stripped.text[length++] = from[++i];
        } else {
            throw "a conversion of a log format lacks its {public} mark";
        }
    }
    return stripped;
}

// The printf format of a whole line: "[UNIT(FUNCTION):LINE] MESSAGE". Put together while compiling, the
// prefix costs a line nothing. Size is enough for unit, message and twice the function.
template <size_t Size>
consteval auto LineFormat(std::string_view unit, std::string_view function, int line,
                          std::string_view message) {
    constexpr size_t kFrame = 16;  // brackets, and the digits of a line's number
    Text<Size + kFrame> format;
    size_t length = 0;
    const auto append = [&](std::string_view part) {
        for (const char c : part) {
            format.text[length++] = c;
        }
    };
    append("[");
    append(unit);
    append("(");
    for (const char& c : function) {
        append(c == '%' ? std::string_view("%%") : std::string_view(&c, 1));  // of operator%
    }
    append("):");
    for (int power = 1'000'000; power > 0; power /= 10) {
        const char digit = static_cast<char>('0' + line / power % 10);
        append({&digit, line >= power ? size_t{1} : size_t{0}});
    }
    append("] ");
    append(message);
    return format;
}

template <typename T>
consteval std::string_view ConversionOf() {
    if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
        return "s";
    } else if constexpr (std::is_same_v<T, int>) {
        return "d";
    } else if constexpr (std::is_same_v<T, unsigned>) {
        return "u";
    } else if constexpr (std::is_same_v<T, long>) {
        return "ld";
    } else if constexpr (std::is_same_v<T, unsigned long>) {
        return "lu";
    } else {
        return "";
    }
}

// Takes the first conversion off a stripped format; empty when there is none.
consteval std::string_view NextConversion(std::string_view& format) {
    for (size_t at = format.find('%'); at != std::string_view::npos; at = format.find('%')) {
        format.remove_prefix(at + 1);
        const bool isPercent = format.starts_with('%');
        const size_t length = isPercent || !format.starts_with('l') ? 1 : 2;
        const std::string_view conversion = format.substr(0, length);
        format.remove_prefix(conversion.size());
        if (!isPercent) {
            return conversion;
        }
    }
    return {};
}

// A function type stands for the list of argument types, so that no argument is evaluated.
template <typename... Args>
using Arguments = void (*)(Args...);

template <typename... Args>
Arguments<std::decay_t<Args>...> ArgumentsOf(Args&&...);

template <typename... Args>
consteval bool FormatMatches(std::string_view format, Arguments<Args...>) {
    return ((NextConversion(format) == ConversionOf<Args>() && !ConversionOf<Args>().empty()) && ...) &&
           NextConversion(format).empty();
}

}  // namespace KITE::Log

#define KITE_LOG(level, label, message, ...)                                                          \
    do {                                                                                              \
        if (::KITE::Log::IsLoggable(level)) {                                                         \
            static constexpr auto kLogUnit = ::KITE::Log::UnitName(__FILE__);                         \
            static constexpr auto kLogFormat =                                                        \
                ::KITE::Log::LineFormat<sizeof(kLogUnit) + 2 * sizeof(__func__) + sizeof(message)>(   \
                    kLogUnit.text, __func__, __LINE__, ::KITE::Log::StripMarks(message).text);        \
            static_assert(                                                                            \
                ::KITE::Log::FormatMatches(::KITE::Log::StripMarks(message).text,                     \
                                           decltype(::KITE::Log::ArgumentsOf(__VA_ARGS__)){nullptr}), \
                "the conversions do not match the arguments");                                        \
            ::KITE::Log::Write(level, label, {kLogUnit.text, __func__, __LINE__},                     \
                               kLogFormat.text __VA_OPT__(, ) __VA_ARGS__);                           \
        }                                                                                             \
    } while (false)
