#pragma once

#include <chrono>
#include <cstdint>

#include "visibility.h"

namespace KITE::Linux {

// Who may call the objects of the Kelvra manager and of its clients:
//
//   set quotas, subscribe   the quota service: the native process that the token of the sender's uid names
//   report                  the Kelvra manager: the process that owns its name on the bus at this moment
//
// Without credentials the answer is no. Every refusal gets an error line, but at most one a minute, since
// anybody can provoke it; the next line tells how many there were. One for each object, on the thread that
// serves it.
class KITE_API CallerCheck {
  public:
    bool IsQuotaService(uint32_t request);
    bool IsKelvraManager(uint32_t request);

  private:
    // Logs that; false.
    bool Refuse(uint32_t request, const char* expected);

    std::chrono::steady_clock::time_point nextLine_;
    unsigned unlogged_ = 0;
};

}  // namespace KITE::Linux
