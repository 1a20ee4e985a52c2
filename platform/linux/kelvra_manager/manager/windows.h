#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "kelvra_manager/manager/rule_book.h"

// When a quota is exceeded: readings over time. Pure; one thread. The rules must outlive the windows.
namespace KITE::Linux::Sampling {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// What one sample read of one resource of one process.
struct Reading {
    TimePoint at;      // the sample's place on the grid of sample times, by which durations are judged
    TimePoint readAt;  // when it was really read
    int64_t value = 0;
};

// Of one sample of one process; without those that are not needed or could not be read.
using Readings = std::map<const ResourceType*, Reading>;

// The judgement of one rule.
//
// An amount breaks its quota when every reading for the duration was above it.
//
// A counter breaks its quota when it grew by more over the last `duration`. It is judged only when a reading
// at least that old is known. Of a long window only some readings are kept, so the oldest may lie further
// back than the duration, as it does when a sample comes late. A percentage does not mind; a growth is scaled
// down to the duration's share, since a process must not be blamed for what it did in a longer time. A
// percentage is rounded up, so that the printed value is above the quota exactly when the precise one is.
class Window {
  public:
    explicit Window(const Rule& rule) : rule_(&rule) {}

    // Takes a sample's reading; the result is the measured value when the quota is exceeded. An amount
    // without a reading was not above the quota, and a counter that went back starts the window anew; a
    // counter without a reading changes nothing.
    std::optional<int64_t> Add(const std::optional<Reading>& reading);
    // Starts the window anew, with the last reading as its first.
    void Restart() { kept_.assign(1, last_); }

    // How many readings it holds: bounded, however long the duration.
    size_t KeptReadings() const noexcept { return kept_.size(); }

  private:
    std::optional<int64_t> AddAmount(const std::optional<Reading>& reading);
    std::optional<int64_t> AddCounter(const Reading& reading);
    int64_t GrowthBetween(const Reading& from, const Reading& to) const;

    const Rule* rule_;
    std::vector<Reading> kept_;  // oldest first; of an amount the first one above the quota
    Reading last_;
};

// That a rule's quota was exceeded.
struct Breach {
    const Rule* rule = nullptr;
    int64_t measured = 0;
};

// The windows of all rules of one process.
class ProcessWindows {
  public:
    explicit ProcessWindows(std::span<const Rule> rules);

    void Add(const Readings& readings);
    // The breaches that the last sample showed and that are to be reported: at most one of each resource,
    // none of one that is held back. Of several rules of a resource the one that was silent for longest comes
    // first, so that none starves another. The window of each breach taken starts anew; the others stay
    // broken and are judged again by the next sample.
    std::vector<Breach> TakeBreaches(const std::function<bool(const ResourceType&)>& isHeldBack);

  private:
    struct JudgedRule {
        const Rule* rule;
        Window window;
        std::optional<int64_t> measured = std::nullopt;  // what the last sample showed, above the quota
        uint64_t reportedAs = 0;  // place in the order of this process's reports; 0 before the first
    };

    JudgedRule* NextBrokenOf(const ResourceType& type);

    std::vector<JudgedRule> judged_;
    uint64_t reports_ = 0;
};

}  // namespace KITE::Linux::Sampling
