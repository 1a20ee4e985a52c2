#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "private_system/child_process.h"

namespace KITE::Demo {

using Clock = std::chrono::steady_clock;
using Tools::milliseconds;

// A competitor that wants the core of another process again and again, in short bouts: how much of the core
// the other one gets beside it tells whether the other one is suppressed. One thread.
class Competition {
  public:
    Competition(const std::string& misbehave, int cpu, uid_t uid);

    // Begins a bout when it is time for one. When one has ended: the rival's share of the CPU time that both
    // got, in percent; other processes on the machine do not change it. Absent when it tells nothing. With
    // longer pauses the rival gets enough of the core to break its quota though it is suppressed.
    std::optional<int64_t> Look(const Tools::ProcessView& rival, bool withLongPauses);

  private:
    Tools::ChildProcess competitor_;
    bool isBout_ = false;
    Clock::time_point begin_{};             // of the bout or the pause,
    std::chrono::nanoseconds rivalTime_{};  // and the CPU times at the bout's begin
    std::chrono::nanoseconds ownTime_{};
};

}  // namespace KITE::Demo
