#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

// The judgement of one rule over time. Pure: fed with readings, tells breaches. One thread.
namespace KITE::Linux::Sampling {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using std::chrono::nanoseconds;

// What one sample read of one resource of one process.
struct Reading {
    TimePoint at;      // the sample's place on the grid of sample times, by which durations are judged
    TimePoint readAt;  // when it was really read
    int64_t value = 0;
};

enum class WindowKind : uint8_t {
    kLevel,    // a level, judged by LevelWindow
    kAmount,   // what a counter grew by, judged by CounterWindow
    kPercent,  // the same of a counter of nanoseconds, as a percentage of the time in which it grew
};

// A level breaks its quota when every reading for the duration was above it.
class LevelWindow {
  public:
    LevelWindow(int64_t quota, nanoseconds duration) : quota_(quota), duration_(duration) {}

    // Takes a sample's reading; the result is its value when it completes a breach. A sample without a
    // reading was not above the quota: the window starts anew.
    std::optional<int64_t> Add(const std::optional<Reading>& reading);
    // Starts the window anew, with the last reading as its first.
    void Restart() { aboveSince_ = last_; }

  private:
    int64_t quota_;
    nanoseconds duration_;
    std::optional<TimePoint> aboveSince_;
    TimePoint last_;
};

// A counter breaks its quota when it grew by more over the last `duration`. Judged only when a reading at
// least that old is known.
//
// Of a long window only some readings are kept, so the oldest may lie further back than the duration, as it
// does when a sample comes late. A percentage does not mind; an amount is scaled down to the duration's
// share, since a process must not be blamed for what it did in a longer time.
class CounterWindow {
  public:
    // A percentage is rounded up, so that the printed value is above the quota exactly when the precise one
    // is.
    CounterWindow(WindowKind kind, int64_t quota, nanoseconds duration)
        : kind_(kind), quota_(quota), duration_(duration) {}

    // Takes a sample's reading; the result is the measured value when it is above the quota. A counter that
    // went back starts the window anew; a sample without a reading changes nothing.
    std::optional<int64_t> Add(const std::optional<Reading>& reading);
    // Starts the window anew, with the last reading as its first.
    void Restart() { kept_.assign(1, last_); }

    // How many readings it holds: bounded, however long the duration.
    size_t KeptReadings() const noexcept { return kept_.size(); }

  private:
    int64_t GrowthBetween(const Reading& from, const Reading& to) const;
    void Keep(const Reading& reading);

    WindowKind kind_;
    int64_t quota_;
    nanoseconds duration_;
    std::vector<Reading> kept_;  // oldest first
    Reading last_;
};

}  // namespace KITE::Linux::Sampling
