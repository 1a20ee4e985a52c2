#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "private_system/child_process.h"

// A bus daemon with the shipped rules, for a machine without a system bus and for tests. Its files stand in a
// directory of the caller's. One thread.
namespace KITE::Tools {

std::string BusAddressIn(const std::string& directory);

// Writes the daemon's configuration: the shipped one of the directory `shipped`, and a user database of this
// machine's users and these.
Linux::Result<void> WriteBusConfiguration(const std::string& directory, const std::string& shipped,
                                          const std::vector<uid_t>& users);

// Starts a daemon with that configuration, which writes its messages to `log`. Returns once it listens.
Linux::Result<std::unique_ptr<ChildProcess>> StartBusDaemon(const std::string& directory, int log);

// Waits until a connection owns the name, the time is over, or `givesUp` says that it is no use.
Linux::Result<void> AwaitBusName(const std::string& address, const std::string& name,
                                 const std::function<bool()>& givesUp, milliseconds limit);

}  // namespace KITE::Tools
