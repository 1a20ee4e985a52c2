#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace KITE::Linux {

// Why a process must never be treated, since the system or this service would stand still with it: the init
// process, kernel threads, the bus daemon, the journal and the hosts of the service. Absent for any other.
// Any thread.
std::optional<std::string> WhyNeverTreated(pid_t pid);

}  // namespace KITE::Linux
