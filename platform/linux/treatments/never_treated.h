#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace KITE::Linux {

// Why a process must never be treated; absent for most. The system or this service would stand still with
// the init process, kernel threads, the bus daemon, the journal and the hosts. Any thread.
std::optional<std::string> WhyNeverTreated(pid_t pid);

}  // namespace KITE::Linux
