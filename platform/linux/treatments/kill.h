#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <system_error>

#include "treatments/idle_family.h"
#include "treatments/reported_processes.h"

namespace KITE::Linux {

// Sends SIGKILL. Any thread.
std::error_code SendKill(int pidfd);

// The processes that were killed and are not gone yet. One thread at a time.
class PendingKills {
  public:
    using Clock = std::chrono::steady_clock;

    // A process that lives longer than that is said to be pending.
    explicit PendingKills(std::chrono::milliseconds patience) : patience_(patience) {}

    void Add(const ReportedProcessPtr& process);
    // One log line for each process that is gone, which is then forgotten, and one for each that is pending.
    void Check(Clock::time_point now);
    // When Check will find the next one pending; absent if none will be.
    std::optional<Clock::time_point> NextCheck() const;
    // Says of each that it is gone or pending, and forgets it.
    void Finish();

  private:
    struct Kill {
        ReportedProcessPtr process;
        Clock::time_point since;
        bool isOverdue = false;
    };

    const std::chrono::milliseconds patience_;
    std::map<ProcessKey, Kill> kills_;
};

}  // namespace KITE::Linux
