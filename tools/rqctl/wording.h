#pragma once

#include <cstdint>
#include <string>

namespace KITE::Rqctl {

// Whether a number can be a moment in milliseconds since the epoch: later ones than the year 9999 come from
// no clock.
bool IsMoment(int64_t time);

// A moment in milliseconds since the epoch, in local time: "2026-11-21 03:12:04.123".
std::string MomentText(int64_t time);

// What was measured, in the resource type's unit: "cpu 83 % of a core over 5 s".
std::string MeasureText(const std::string& resourceType, int64_t resource, int64_t duration);

// "hog (pid 412)", with the name made harmless.
std::string ProcessText(const std::string& name, int64_t pid);

}  // namespace KITE::Rqctl
