#pragma once

#include <sys/types.h>
#include <time.h>

#include <chrono>
#include <optional>

namespace KITE::Linux {

// The CPU clock of whatever process bears a pid: the time of all its threads, ended ones included, in
// nanoseconds, where "stat" has ticks of 10 ms. What a running thread has used counts from the next timer
// tick or switch on.
class CpuClock {
  public:
    explicit CpuClock(pid_t pid) : isThere_(clock_getcpuclockid(pid, &id_) == 0) {}

    // Absent when there is no such process.
    std::optional<std::chrono::nanoseconds> Read() const {
        timespec time{};
        if (!isThere_ || clock_gettime(id_, &time) != 0) {
            return std::nullopt;
        }
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

  private:
    clockid_t id_{};
    bool isThere_;
};

}  // namespace KITE::Linux
