#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "demo/child.h"
#include "demo/loop.h"
#include "demo/programs.h"

namespace KITE::Demo {

// What was seen to happen to a process.
enum class Happening : uint8_t {
    kSuppressed,  // gets next to nothing beside a competitor, though it wants to run
    kResumed,     // gets its share again
    kFrozen,      // uses no CPU time for kStandstill, and does not wait for a processor either
    kThawed,      // uses CPU time again
    kMoved,       // is in another control group than at its start, or scheduled as idle
    kKilled,      // died of SIGKILL
    kEnded,       // ended otherwise
};

std::string HappeningText(Happening happening);

struct Sighting {
    Happening happening;
    std::string detail;  // what was measured
};

// What /proc tells of a process at one moment.
struct ProcReading {
    char state = '?';
    bool isIdlePolicy = false;
    int64_t cpuNs = 0;
    int64_t writtenBytes = 0;
    int64_t residentBytes = 0;
    std::string groups;
};

// Absent when the process has ended. The pid must not have been reaped.
std::optional<ProcReading> ReadProc(pid_t pid);

// Finds out what happens to one process, from its pidfd and /proc and nothing else. Our own programs never
// sleep for as long as kStandstill, so one that does is kept from running. One thread.
class Observer {
  public:
    static constexpr milliseconds kStandstill{500};

    Observer(const Program& program, Child& child);

    // Looks at the process; returns what has happened since the last look. Every 50 ms or so.
    std::vector<Sighting> Look(Clock::time_point now);
    // The competitor wants the process's core from now on; it no longer does, and this is what that came to.
    void BeginCompetition(pid_t competitor);
    std::vector<Sighting> EndCompetition(pid_t competitor);

    const Program& Of() const { return program_; }
    pid_t Pid() const { return child_.Pid(); }
    bool HasEnded() const { return hasEnded_; }
    bool IsSuppressed() const { return isSuppressed_; }
    // All that happened, in order.
    const std::vector<Happening>& History() const { return history_; }
    // The highest value of the program's measure, and the longest time without any CPU time used.
    int64_t Peak() const { return peak_; }
    milliseconds LongestPause() const { return longestPause_; }
    // Whether it is, as far as control groups and scheduling go, what it was at its start.
    bool IsAsAtStart() const;
    // Whether it has met its fate as far as that can be while the service runs.
    bool IsFateReached() const;

  private:
    struct Point {
        Clock::time_point at;
        int64_t value;
    };

    // Of the process and its competitor, when they began to compete.
    struct CpuTimes {
        int64_t own;
        int64_t competitor;
    };

    void Note(std::vector<Sighting>& sightings, Happening happening, std::string detail);
    void LookAtEnd(std::vector<Sighting>& sightings);
    void LookAtProgress(const ProcReading& reading, Clock::time_point now, std::vector<Sighting>& sightings);
    void TakeMeasure(const ProcReading& reading, Clock::time_point now);
    std::string Total() const;

    const Program& program_;
    Child& child_;
    std::vector<Happening> history_;
    bool hasEnded_ = false;
    std::optional<ProcReading> last_;
    std::string home_;
    Clock::time_point stillSince_{};  // in a state that is no wish to run
    Clock::time_point progressAt_{};  // when progress was last seen
    int64_t cpuNsSeen_ = 0;           // its CPU time then
    milliseconds longestPause_{};
    bool isFrozen_ = false;
    bool isSuppressed_ = false;
    std::deque<Point> lastSecond_;
    int64_t current_ = 0;
    int64_t peak_ = 0;
    std::optional<CpuTimes> competition_;
    int64_t shareBefore_ = 0;
};

// Whether what was seen is the program's fate; else why not.
std::string Shortcoming(const Observer& observer);

}  // namespace KITE::Demo
