#pragma once

#include <string_view>

// The events that the platform records; docs/linux.md has their items, and the service's own event.
namespace KITE::Linux::EventName {

inline constexpr std::string_view kDomain = "KITE";

inline constexpr std::string_view kReport = "REPORT";
inline constexpr std::string_view kSuppress = "SUPPRESS";
inline constexpr std::string_view kSuppressEnd = "SUPPRESS_END";
inline constexpr std::string_view kFreeze = "FREEZE";
inline constexpr std::string_view kThaw = "THAW";
inline constexpr std::string_view kKill = "KILL";
inline constexpr std::string_view kRelease = "RELEASE";

}  // namespace KITE::Linux::EventName
