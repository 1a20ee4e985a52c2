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

    const std::error_code& StartError() const { return competitor_.StartError(); }
    // Begins a bout when it is time for one. When one has ended: the rival's share of the CPU time that both
    // got, in percent; other processes on the machine do not change it. Absent when it tells nothing. With
    // longer pauses the rival gets enough of the core to break its quota though it is suppressed.
    std::optional<int64_t> Look(const Tools::ProcessView& rival, bool withLongPauses, Clock::time_point now);

  private:
    struct Bout {
        Clock::time_point begin;
        std::chrono::nanoseconds rival;  // the CPU times at its begin
        std::chrono::nanoseconds competitor;
    };

    Tools::ChildProcess competitor_;
    std::optional<Bout> bout_;
    Clock::time_point pauseBegin_{};
};

}  // namespace KITE::Demo
