#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kelvra_manager/manager/rule_book.h"

// The judgement of one rule over time. Pure: fed with readings, tells breaches. One thread.
namespace KITE::Linux::Sampling {

// A level (memory) breaks its quota when every reading for the duration was above it.
class LevelWindow {
  public:
    LevelWindow(int64_t quota, nanoseconds duration) : quota_(quota), duration_(duration) {}

    // Takes a reading; the result is the reading when it completes a breach.
    std::optional<int64_t> Add(TimePoint at, int64_t level);
    // A sample without a reading: not every sample was above the quota, so the window starts anew.
    void Miss() { aboveSince_.reset(); }
    // Starts the window anew, with the last reading as its first.
    void Restart() { aboveSince_ = last_; }

  private:
    int64_t quota_;
    nanoseconds duration_;
    std::optional<TimePoint> aboveSince_;
    TimePoint last_;
};

// How the growth of a counter becomes a measured value.
enum class Measure : uint8_t {
    kPercent,  // of the time in which it grew, rounded up: a counter of CPU nanoseconds gives percent of a
               // core
    kAmount,   // as it is
};

struct CounterReading {
    TimePoint at;      // the sample's place on the grid of sample times, by which durations are judged
    TimePoint readAt;  // when it really was read
    int64_t value = 0;
};

// A counter breaks its quota when it grew by more over the last `duration`. Judged only when a reading at
// least that old is known.
//
// Of a long window only some readings are kept, so the oldest may lie further back than the duration, as it
// does when a sample comes late. A percentage does not mind; an amount is scaled down to the duration's
// share, since a process must not be blamed for what it did in a longer time.
class CounterWindow {
  public:
    CounterWindow(int64_t quota, nanoseconds duration, Measure measure)
        : quota_(quota), duration_(duration), measure_(measure) {}

    // Takes a reading; the result is the measured value when it is above the quota. A counter that went back
    // starts the window anew.
    std::optional<int64_t> Add(const CounterReading& reading);
    // Starts the window anew, with the last reading as its first.
    void Restart() { kept_.assign(1, last_); }

    // How many readings it holds: bounded, however long the duration.
    size_t KeptReadings() const noexcept { return kept_.size(); }

  private:
    int64_t Measured(const CounterReading& from, const CounterReading& to) const;
    void Keep(const CounterReading& reading);

    int64_t quota_;
    nanoseconds duration_;
    Measure measure_;
    std::vector<CounterReading> kept_;  // oldest first
    CounterReading last_;
};

}  // namespace KITE::Linux::Sampling
