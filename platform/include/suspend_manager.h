#pragma once

#include <cstdint>
#include <string>

#include "visibility.h"

namespace KITE {

// What to do with one native process. -1 in a numeric field after the name leaves the choice to the manager.
struct NativeProcessInfo {
    int32_t pid = 0;
    int32_t uid = 0;
    std::string processName;
    int32_t reason = 0;
    int64_t durationMs = 0;
    bool isFreeze = false;  // true freezes, false thaws
};

// The suspend manager, which freezes and thaws processes that belong to no application.
class KITE_API SuspendManagerClient {
  public:
    static SuspendManagerClient& GetInstance();

    // 0 on success, else an error number. Any thread but the one that serves requests.
    int32_t OperateOneNativeProcess(const NativeProcessInfo& process);
};

}  // namespace KITE
