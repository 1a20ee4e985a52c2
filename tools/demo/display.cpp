#include "demo/display.h"

#include <fmt/format.h>

namespace KITE::Demo {

using Tools::Paint;

void Say(Tone tone, const std::string& text) {
    Tools::Say(Paint(tone, text));
}

void SayEvent(Clock::duration since, const std::string& program, Tone tone, const std::string& what,
              const std::string& detail) {
    Tools::Say(fmt::format("{}  {:<14}  {}  {}",
                           Paint(Tone::kQuiet, fmt::format("{:>7}", SecondsText(since))), program,
                           Paint(tone, fmt::format("{:<11}", what)), detail));
}

void SayTable(const std::vector<Outcome>& outcomes) {
    constexpr std::string_view kRow = "  {:<14}  {:<27}  {:<36}  {}";
    Tools::Say("");
    Say(Tone::kQuiet,
        fmt::format(fmt::runtime(kRow), "process", "should be", "what /proc showed", "verdict"));
    for (const Outcome& outcome : outcomes) {
        const std::string verdict = outcome.shortcoming.empty()
                                        ? Paint(Tone::kGood, "as it should")
                                        : Paint(Tone::kBad, "WRONG: " + outcome.shortcoming);
        Tools::Say(
            fmt::format(fmt::runtime(kRow), outcome.name, outcome.expected, outcome.observed, verdict));
    }
    Tools::Say("");
}

Tone ToneOf(Happening happening) {
    switch (happening) {
        case Happening::kSuppressed:
        case Happening::kFrozen:
            return Tone::kNotice;
        case Happening::kKilled:
        case Happening::kEnded:
            return Tone::kBad;
        default:
            return Tone::kGood;
    }
}

}  // namespace KITE::Demo
