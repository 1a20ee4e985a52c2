#include "demo/display.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace KITE::Demo {

namespace {

constexpr size_t kNameWidth = 14;
constexpr size_t kWhatWidth = 11;
constexpr size_t kExpectedWidth = 27;
constexpr size_t kObservedWidth = 36;

const char* CodeOf(Tone tone) {
    switch (tone) {
        case Tone::kQuiet:
            return "\033[2m";
        case Tone::kGood:
            return "\033[32m";
        case Tone::kNotice:
            return "\033[36m";
        case Tone::kWarning:
            return "\033[33m";
        case Tone::kBad:
            return "\033[31m";
        case Tone::kPlain:
            break;
    }
    return "";
}

bool WantsColour() {
    const char* refusal = secure_getenv("NO_COLOR");
    const char* terminal = secure_getenv("TERM");
    const bool isDumb = terminal != nullptr && std::string(terminal) == "dumb";
    return isatty(STDOUT_FILENO) != 0 && (refusal == nullptr || *refusal == '\0') && !isDumb;
}

std::string Padded(std::string text, size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

// A line is out when the call returns: what is shown is happening now.
void PutLine(const std::string& line) {
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

Display::Display() : isColoured_(WantsColour()) {}

std::string Display::Paint(Tone tone, const std::string& text) const {
    return isColoured_ && tone != Tone::kPlain ? CodeOf(tone) + text + "\033[0m" : text;
}

void Display::Say(Tone tone, const std::string& text) const {
    PutLine(Paint(tone, text));
}

void Display::Event(const std::string& name, Tone tone, const std::string& what,
                    const std::string& detail) const {
    const auto elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - start_).count();
    std::string time = std::to_string(elapsed / 1000) + "." + std::to_string(elapsed % 1000 / 100) + " s";
    time.insert(0, time.size() < 7 ? 7 - time.size() : 0, ' ');
    PutLine(Paint(Tone::kQuiet, time) + "  " + Padded(name, kNameWidth) + "  " +
            Paint(tone, Padded(what, kWhatWidth)) + "  " + detail);
}

void Display::Table(const std::vector<Outcome>& outcomes) const {
    const auto row = [](const std::string& name, const std::string& expected, const std::string& observed) {
        return "  " + Padded(name, kNameWidth) + "  " + Padded(expected, kExpectedWidth) + "  " +
               Padded(observed, kObservedWidth) + "  ";
    };
    PutLine("");
    PutLine(Paint(Tone::kQuiet, row("process", "should be", "what /proc showed") + "verdict"));
    for (const Outcome& outcome : outcomes) {
        const bool isMet = outcome.shortcoming.empty();
        PutLine(row(outcome.name, outcome.expected, outcome.observed) +
                Paint(isMet ? Tone::kGood : Tone::kBad,
                      isMet ? "as it should" : "WRONG: " + outcome.shortcoming));
    }
    PutLine("");
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
