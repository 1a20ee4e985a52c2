#pragma once

#include <chrono>
#include <optional>
#include <system_error>

#include "treatments/reported_processes.h"

namespace KITE::Linux {

// Sends SIGKILL. Any thread.
std::error_code SendKill(int pidfd);

// The death of a process that was sent SIGKILL. A process that lives longer than `patience` is pending.
class Death {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Death(std::chrono::milliseconds patience) : patience_(patience) {}

    // Whether the process is gone. The log tells that, or, once, that it is pending.
    bool Check(const ReportedProcess& process, Clock::time_point now);
    // When Check will find it pending; absent if it has.
    std::optional<Clock::time_point> NextCheck() const;

  private:
    std::chrono::milliseconds patience_;
    Clock::time_point since_ = Clock::now();
    bool isPending_ = false;
};

}  // namespace KITE::Linux
