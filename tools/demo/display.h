#pragma once

#include <memory>
#include <string>
#include <vector>

#include "demo/loop.h"
#include "demo/observer.h"

namespace KITE::Demo {

// What a line tells, which gives it its colour.
enum class Tone : uint8_t { kPlain, kQuiet, kGood, kNotice, kWarning, kBad };

// One row of the table at the end.
struct Outcome {
    std::string name;
    std::string expected;
    std::string observed;
    std::string shortcoming;  // empty: as expected
};

// Writes to standard output, in colour on a terminal unless NO_COLOR is set. One thread.
class Display {
  public:
    Display();

    void Say(Tone tone, const std::string& text) const;
    // The clock of the event lines starts.
    void StartClock() { start_ = Clock::now(); }
    void Event(const std::string& name, Tone tone, const std::string& what, const std::string& detail) const;
    void Table(const std::vector<Outcome>& outcomes) const;

  private:
    std::string Paint(Tone tone, const std::string& text) const;

    bool isColoured_;
    Clock::time_point start_ = Clock::now();
};

Tone ToneOf(Happening happening);

}  // namespace KITE::Demo
