#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "demo/competition.h"
#include "demo/programs.h"
#include "shared/terminal.h"

namespace KITE::Demo {

// What was seen to happen to a process.
enum class Happening : uint8_t {
    kSuppressed,  // gets next to nothing beside a competitor, though it wants to run
    kResumed,     // gets its share again
    kFrozen,      // uses no CPU time for kStandstill, and does not wait for a processor either
    kThawed,      // uses CPU time again
    kMoved,       // is in another control group than at its start, or scheduled in another way
    kKilled,      // died of SIGKILL
    kEnded,       // ended otherwise
};

// How a happening is told: "frozen".
struct HappeningWord {
    const char* text;
    Tools::Tone tone;
};

const HappeningWord& WordOf(Happening happening);
std::string SecondsText(Clock::duration time);

// Finds out what happens to one process, from its pidfd and /proc and nothing else. The programs of the
// demonstration never sleep for as long as kStandstill, so one that does is kept from running. One thread.
class Observer {
  public:
    static constexpr milliseconds kStandstill{500};
    // Hears of everything that happens but kMoved, with what was measured.
    using Tell = std::function<void(const Program&, Happening, const std::string& detail)>;

    // Starts the program so.
    Observer(const Program& program, const Tools::Launch& launch, Tell tell);

    // Looks at the process. Every 50 ms or so.
    void Look();
    // Takes what the process got beside its competitor, in percent.
    void TakeShare(int64_t percent);

    const Program& Of() const { return program_; }
    const Tools::ChildProcess& Process() const { return process_; }
    bool HasEnded() const { return hasEnded_; }
    bool IsSuppressed() const { return isSuppressed_; }
    // All that happened, in order.
    const std::vector<Happening>& History() const { return history_; }
    bool Saw(Happening happening) const;
    // The highest amount of the program's resource: MiB of memory, MiB written in a second, or percent of a
    // core.
    int64_t Peak() const { return peak_; }
    std::string PeakText() const;
    // The longest time without any CPU time used.
    Clock::duration LongestPause() const { return longestPause_; }
    // Whether its control groups and its scheduling are those of its start.
    bool IsAsAtStart() const;

  private:
    void Note(Happening happening, const std::string& detail);
    void LookAtEnd();
    void LookAtProgress(Clock::time_point now);
    void Measure(Clock::time_point now);

    const Program& program_;
    Tools::ChildProcess process_;
    const Tell tell_;
    const std::string home_;  // its groups and its scheduling at the start
    std::vector<Happening> history_;
    bool hasEnded_ = false;
    bool isFrozen_ = false;
    bool isSuppressed_ = false;
    int64_t share_ = 0;                       // beside the competitor, in percent
    Clock::time_point stillSince_;            // since when it neither runs nor wants to
    Clock::time_point progressAt_;            // when progress was last seen,
    std::chrono::nanoseconds progressCpu_{};  // and its CPU time then
    Clock::duration longestPause_{};
    Clock::time_point secondBegin_;  // of the second that is measured now,
    int64_t secondBase_ = 0;         // and what had been used at its begin
    int64_t used_ = 0;               // of the program's resource
    int64_t peak_ = 0;
};

}  // namespace KITE::Demo
