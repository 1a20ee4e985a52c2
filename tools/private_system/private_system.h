#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "private_system/child_process.h"
#include "private_system/log_file.h"

namespace KITE::Tools {

inline constexpr uid_t kQuotaUid = 61913;
inline constexpr uid_t kKelvraUid = 61214;

// What a private system is made of, and how it starts what it starts from now on.
struct SystemParts {
    std::string shipped;                                     // the tree's etc directory
    std::string host;                                        // the program kite_host
    std::string quotaLibrary;                                // of the quota service
    std::string kelvraLibrary;                               // of the Kelvra manager
    std::string log = {};                                    // for all processes; else a file for each
    std::string quotaCapabilities = {};                      // as setpriv wants them; else those of the unit
    std::vector<std::string> logOptions{"--log-to-stderr"};  // none: to the journal, where there is one
    std::vector<uid_t> clientUids = {};                      // of further clients of the bus
};

// Where a private system's files are, and its bus.
struct SystemPaths {
    std::string directory;
    std::string etc;
    std::string state;
    std::string busAddress;
};

// A host and what it logs.
struct HostProcess {
    HostProcess(const std::string& logPath, const std::vector<std::string>& command)
        : log(logPath), process({.program = "/usr/bin/setpriv", .arguments = command, .output = log.Fd()}) {}

    LogFile log;
    ChildProcess process;
};

// The whole system beside the machine's own: a bus, both hosts under the users and with the capabilities that
// they have on a device, and their files in a directory below the one for temporary files. The configuration
// is the caller's, who writes it into the etc directory. Needs root. Destruction stops everything, releases
// what was treated and leaves nothing behind. One thread.
class PrivateSystem {
  public:
    explicit PrivateSystem(SystemParts parts);
    PrivateSystem(const PrivateSystem&) = delete;
    PrivateSystem& operator=(const PrivateSystem&) = delete;
    ~PrivateSystem();

    SystemParts& Parts() { return parts_; }
    // Empty before the bus has been started.
    const SystemPaths& Paths() const { return paths_; }

    // Makes the directories, the first time, and starts the bus.
    Linux::Result<void> StartBus();
    // In place of an earlier one.
    HostProcess& StartQuotaHost(std::vector<std::string> options = {});
    HostProcess& StartKelvraHost();
    // Waits until the quota service's host logs that it can be called. Gives up when a host ends, or the
    // descriptor becomes readable.
    Linux::Result<void> AwaitService(milliseconds limit = kPatience, int interruption = -1);
    // What ended of the bus and the hosts: "the bus daemon was killed by signal 9"; empty when all runs.
    std::string WhatEnded();
    // Each exists once it has been started.
    ChildProcess& BusDaemon() { return *bus_; }
    HostProcess& QuotaHost() { return *quotaHost_; }
    HostProcess& KelvraHost() { return *kelvraHost_; }

    // Stops the hosts that run, which release what they treat, and releases what a killed one left. Fails
    // when one does not exit with 0 in time, or not everything could be released.
    Linux::Result<void> StopHosts();
    // kite_host --release: its exit status.
    int Release();

  private:
    Linux::Result<void> MakeDirectories();
    std::string NextLog();
    // Those that have been started, by what people call them.
    std::map<std::string, ChildProcess*> Processes();
    std::unique_ptr<HostProcess> StartHost(uid_t uid, const std::vector<std::string>& arguments);

    SystemParts parts_;
    SystemPaths paths_;
    int logs_ = 0;
    std::unique_ptr<ChildProcess> bus_;
    std::unique_ptr<HostProcess> quotaHost_;
    std::unique_ptr<HostProcess> kelvraHost_;
};

}  // namespace KITE::Tools
