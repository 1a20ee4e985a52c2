#pragma once

#include <cstdint>
#include <string>

#include "kelvra_manager_client.h"

// A rule in plain words, and the facts that its words and the check rest on.
namespace KITE::Rqctl {

// The staged treatment. A report comes each `duration` seconds. Only up to 2 do two more surely fall into the
// suppression that follows the first one: the process is frozen for a part of it, and then exceeds no quota.
inline constexpr int64_t kSuppressionSeconds = 6;
inline constexpr int64_t kLongestStagedDuration = 2;

// The Kelvra manager watches for no longer, some thirty years.
inline constexpr int64_t kLongestDuration = 1'000'000'000;

// On Linux audio is never reported, and a process is not in the foreground and in the background.
constexpr bool NeverHolds(uint32_t conditions) {
    constexpr uint32_t kAudio = 4;
    constexpr uint32_t kForegroundAndBackground = 1 | 2;
    return (conditions & kAudio) != 0 || (conditions & kForegroundAndBackground) == kForegroundAndBackground;
}

// When a rule's quota is exceeded, under which conditions something is done then, and what.
std::string QuotaInWords(const Kelvra::ResQuotaInfo& rule);
std::string ConditionsInWords(const Kelvra::ResQuotaInfo& rule);
std::string ActionInWords(const Kelvra::ResQuotaInfo& rule);

}  // namespace KITE::Rqctl
