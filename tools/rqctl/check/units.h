#pragma once

#include <cstdint>
#include <string_view>

namespace KITE::Rqctl {

// What a resource type means on Linux.
struct Unit {
    std::string_view resource;
    const char* name = "";     // of the quota's unit
    int64_t mostPossible = 0;  // nothing measures more, so no quota from here on can be exceeded
    bool isStaged = false;     // suppressed, frozen, killed, in place of the rule's own action
};

// Of the largest Linux machines: 64 PiB of address space, 8192 processors.
inline constexpr Unit kUnits[] = {
    {"mem", "KiB", int64_t{1} << 46, false},
    {"cpu", "percent of one core", int64_t{8192} * 100, false},
    {"cpu_ext", "percent of one core", int64_t{8192} * 100, true},
    {"io", "bytes", INT64_MAX, false},
};

constexpr const Unit& UnitOf(std::string_view resource) {
    for (const Unit& unit : kUnits) {
        if (unit.resource == resource) {
            return unit;
        }
    }
    return kUnits[0];
}

// The staged treatment. A report comes each `duration` seconds; only up to 2 do two more surely fall into the
// first one's suppression, since the process is frozen, and breaks no quota, for a part of it.
inline constexpr int64_t kSuppressionSeconds = 6;
inline constexpr int64_t kLongestStagedDuration = 2;

// Nothing tells of audio, and a process is not in the foreground and in the background.
constexpr bool NeverHolds(uint32_t conditions) {
    constexpr uint32_t kAudio = 4;
    constexpr uint32_t kForegroundAndBackground = 1 | 2;
    return (conditions & kAudio) != 0 || (conditions & kForegroundAndBackground) == kForegroundAndBackground;
}

// The Kelvra manager watches for no longer, some thirty years.
inline constexpr int64_t kLongestDuration = 1'000'000'000;

}  // namespace KITE::Rqctl
