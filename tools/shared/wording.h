#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What all texts of the tools say in the same words.
namespace KITE::Tools {

// The last moment of the year 9999, in ms since the epoch. No clock tells a later one.
inline constexpr int64_t kLatestMoment = 253'402'300'799'999;

// A moment in ms since the epoch, in local time: "2026-11-21 03:12:04.123". A time before the epoch or after
// kLatestMoment as its number.
std::string MomentText(int64_t time);

// The same without the date: "03:12:04.123".
std::string ClockText(int64_t time);

// What was measured, in the resource type's unit: "cpu 83 % of a core over 5 s".
std::string MeasureText(std::string_view resourceType, int64_t resource, int64_t duration);

// "12.3 MiB", "512 B": in the largest unit of which there is at least one.
std::string BytesText(double bytes);

// "hog (pid 412)", with the name escaped.
std::string ProcessText(std::string_view name, int64_t pid);

}  // namespace KITE::Tools
