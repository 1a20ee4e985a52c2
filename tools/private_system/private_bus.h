#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "private_system/child_process.h"
#include "private_system/log_file.h"

// A bus daemon for a machine without a system bus and for tests. One thread.
namespace KITE::Tools {

std::string BusAddressIn(const std::string& directory);

// Starts a daemon with that configuration at the address in the directory, where it also keeps its list of
// users: those of this machine, and these. Its messages go to the log. Returns once it listens.
Linux::Result<std::unique_ptr<ChildProcess>> StartBusDaemon(const std::string& directory,
                                                            const std::string& configuration,
                                                            const std::vector<uid_t>& users, LogFile& log);

}  // namespace KITE::Tools
