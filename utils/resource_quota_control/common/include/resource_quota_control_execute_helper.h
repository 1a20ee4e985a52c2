#pragma once

#include <cstdint>
#include <string>

namespace KITE::ResourceQuotaCtl {

// Turns a decision about a process into a request to the platform. Without state; any thread that may wait
// for the platform. The process is named, not held: the platform checks that it is still the one meant.
class ResourceQuotaControlExecuteHelper {
  public:
    ResourceQuotaControlExecuteHelper() = delete;

    // Kills a process for breaking a quota of the resource type and records a fault event when that was
    // accepted. 0 on success, -1 for a pid below 1, else the platform's error.
    static int32_t KillProcessByPid(int32_t pid, const std::string& resType, const std::string& processName);
    // Freezes a process without an end of its own. 0 on success, else the platform's error.
    static int32_t FreezeOneNativeProcess(int32_t pid, int32_t uid, const std::string& processName);
};

}  // namespace KITE::ResourceQuotaCtl
