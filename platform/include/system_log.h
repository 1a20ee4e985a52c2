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
KITE_API inline constinit std::atomic<Level> minimumLevel{Level::kInfo};

inline bool IsLoggable(Level level) {
    return level >= minimumLevel.load(std::memory_order_relaxed);
}

// Writes one line: the prefix, and what the printf format makes of the arguments. Use KITE_LOG.
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

// How an argument is converted, by a pointer to its type; empty where it cannot be.
struct Conversion {
    static consteval std::string_view Of(const void*) { return ""; }
    static consteval std::string_view Of(const char**) { return "s"; }
    static consteval std::string_view Of(char**) { return "s"; }
    static consteval std::string_view Of(int*) { return "d"; }
    static consteval std::string_view Of(unsigned*) { return "u"; }
    static consteval std::string_view Of(long*) { return "ld"; }
    static consteval std::string_view Of(unsigned long*) { return "lu"; }
};

// A function type stands for the list of argument types, so that no argument is evaluated.
template <typename... Args>
using Arguments = void (*)(Args...);

template <typename... Args>
Arguments<std::decay_t<Args>...> ArgumentsOf(Args&&...);

// Not for constant expressions: a call of one stops the compiler, which names it.
inline void AConversionOfALogFormatLacksItsPublicMark() {}
inline void AConversionOfALogFormatDoesNotFitItsArgument() {}
inline void ALogFormatHasTooFewConversions() {}

// The printf format without the marks.
template <size_t N, typename... Args>
consteval Text<N> PrintfFormat(const char (&marked)[N], Arguments<Args...>) {
    constexpr std::string_view kMark = "{public}";
    constexpr std::string_view kConversions[] = {Conversion::Of(static_cast<Args*>(nullptr))..., ""};
    const std::string_view from(marked, N - 1);
    Text<N> format;
    size_t length = 0;
    size_t argument = 0;
    for (size_t i = 0; i < from.size(); ++i) {
        format.text[length++] = from[i];
        if (from[i] != '%') {
            continue;
        }
        if (from.substr(i + 1).starts_with('%')) {
            format.text[length++] = from[++i];
            continue;
        }
        if (from.substr(i + 1, kMark.size()) != kMark) {
            AConversionOfALogFormatLacksItsPublicMark();
        }
        i += kMark.size();
        const std::string_view conversion = kConversions[argument++];
        if (conversion.empty() || !from.substr(i + 1).starts_with(conversion)) {
            AConversionOfALogFormatDoesNotFitItsArgument();
        }
    }
    if (argument != sizeof...(Args)) {
        ALogFormatHasTooFewConversions();
    }
    return format;
}

}  // namespace KITE::Log

#define KITE_LOG(level, label, message, ...)                                        \
    do {                                                                            \
        if (::KITE::Log::IsLoggable(level)) {                                       \
            static constexpr auto kLogUnit = ::KITE::Log::UnitName(__FILE__);       \
            static constexpr auto kLogFormat = ::KITE::Log::PrintfFormat(           \
                message, decltype(::KITE::Log::ArgumentsOf(__VA_ARGS__)){nullptr}); \
            ::KITE::Log::Write(level, label, {kLogUnit.text, __func__, __LINE__},   \
                               kLogFormat.text __VA_OPT__(, ) __VA_ARGS__);         \
        }                                                                           \
    } while (false)
