#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "visibility.h"

namespace KITE {

// The resource-schedule service. Payloads are texts by key; numbers are decimal. Any thread but the one that
// serves requests.
class KITE_API ResSchedClient {
  public:
    static ResSchedClient& GetInstance();

    // Reports an event. The caller gets no result: the service logs a request that it cannot carry out.
    void ReportData(uint32_t resType, int64_t value,
                    const std::unordered_map<std::string, std::string>& payload);
    // Kills the process that "pid" and "processName" name; "killReason" may say why. 0 once the process is
    // certain to end, else an error number.
    int32_t KillProcess(const std::unordered_map<std::string, std::string>& payload);
};

}  // namespace KITE
