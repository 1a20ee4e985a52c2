#pragma once

#include "system_log.h"

namespace KITE::Rqctl {

// Keeps the lines of the service's code out of the log and off standard error while it works for a command,
// which tells by itself what is wrong, and where. One thread.
class QuietLog {
  public:
    QuietLog() { Log::minimumLevel = static_cast<Log::Level>(static_cast<int>(Log::Level::kError) + 1); }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;
    ~QuietLog() { Log::minimumLevel = before_; }

  private:
    const Log::Level before_ = Log::minimumLevel;
};

}  // namespace KITE::Rqctl
