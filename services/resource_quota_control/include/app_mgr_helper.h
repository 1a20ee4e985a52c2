#pragma once

#include <cstdint>
#include <mutex>
#include <utility>

#include "app_manager.h"

namespace KITE::ResourceQuotaCtl {

// Asks the application manager about application processes. Reached through its DelayedSingleton. Any thread
// that may wait for the application manager; callers are served one at a time.
class AppMgrHelper {
  public:
    virtual ~AppMgrHelper() = default;

    // First: the pair names a live application process or one of its render processes. Second: an application
    // of the uid is in the foreground. Both false when the application manager cannot be reached; a query
    // that fails counts as an empty answer.
    std::pair<bool, bool> VerifyAppPidAndCheckForeground(int32_t uid, int32_t pid);

  private:
    bool Connect();  // called with the mutex held

    sptr<IAppMgr> appMgrProxy_;  // kept for good once it is held
    std::mutex mutex_;
};

}  // namespace KITE::ResourceQuotaCtl
