#pragma once

#include "system_log.h"

// The platform's own log lines. Messages and arguments as KITE_LOG takes them.
#define PLATFORM_LOGD(message, ...) \
    KITE_LOG(::KITE::Log::Level::kDebug, ::KITE::Linux::kPlatformLabel, message __VA_OPT__(, ) __VA_ARGS__)
#define PLATFORM_LOGI(message, ...) \
    KITE_LOG(::KITE::Log::Level::kInfo, ::KITE::Linux::kPlatformLabel, message __VA_OPT__(, ) __VA_ARGS__)
#define PLATFORM_LOGW(message, ...) \
    KITE_LOG(::KITE::Log::Level::kWarning, ::KITE::Linux::kPlatformLabel, message __VA_OPT__(, ) __VA_ARGS__)
#define PLATFORM_LOGE(message, ...) \
    KITE_LOG(::KITE::Log::Level::kError, ::KITE::Linux::kPlatformLabel, message __VA_OPT__(, ) __VA_ARGS__)

namespace KITE::Linux {

inline constexpr Log::Label kPlatformLabel{0xD001700, "KITE_PLATFORM"};

// Ends the thread that writes log lines to standard error, once the queue is written or its reader has had a
// second. Later lines are written as far as that needs no waiting. Idempotent. Not in a signal handler.
KITE_API void StopLog();

}  // namespace KITE::Linux
