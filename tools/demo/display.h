#pragma once

#include <string>
#include <vector>

#include "demo/observer.h"
#include "shared/terminal.h"

// What the demonstration prints. One thread.
namespace KITE::Demo {

using Tools::Tone;

void Say(Tone tone, const std::string& text);

// A line of what happens, at a moment since the programs were started.
void SayEvent(Clock::duration since, const std::string& program, Tone tone, const std::string& what,
              const std::string& detail);

// One row of the table at the end.
struct Outcome {
    std::string name;
    std::string expected;
    std::string observed;
    std::string shortcoming;  // empty: as expected
};

void SayTable(const std::vector<Outcome>& outcomes);

Tone ToneOf(Happening happening);

}  // namespace KITE::Demo
