#pragma once

#include <string>
#include <vector>

#include "runtime/settings.h"
#include "system_log.h"

namespace KITE::Linux {

struct HostOptions {
    Settings settings;
    Log::Level logLevel = Log::Level::kInfo;
    // Release what a killed host left treated, and do nothing else. Not in a dry run.
    bool release = false;
    std::vector<std::string> libraries;
};

inline constexpr int kExitStopped = 0;
// A start that failed, or a release that could not release everything.
inline constexpr int kExitFailed = 1;
// The bus went away: the supervisor starts the host again (EX_TEMPFAIL).
inline constexpr int kExitBusLost = 75;

// Runs the host until SIGTERM, SIGINT or the loss of the bus, and returns the process's exit status. Called
// by main, once, before there is another thread. No thread is left when it returns.
KITE_API int RunHost(const HostOptions& options);

}  // namespace KITE::Linux
