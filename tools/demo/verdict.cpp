#include "demo/verdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <vector>

namespace KITE::Demo {

namespace {

using History = std::vector<Happening>;

struct Expectation {
    const char* text;
    History happenings;
};

const Expectation& ExpectationOf(Fate fate) {
    using enum Happening;
    // In the order of the fates.
    static const Expectation expectations[] = {
        {"suppressed, frozen, killed", {kSuppressed, kFrozen, kKilled}},
        {"killed", {kKilled}},
        {"frozen, thawed at the stop", {kFrozen, kThawed}},
        {"untouched", {}},
    };
    return expectations[static_cast<size_t>(fate)];
}

std::string ShortcomingOfHistory(const Observer& observer) {
    const Fate fate = observer.Of().fate;
    const History& expected = ExpectationOf(fate).happenings;
    History history = observer.History();
    if (fate != Fate::kUntouched) {
        std::erase(history, Happening::kMoved);  // a means of the rest
    }
    auto at = history.begin();
    std::string previous;
    for (const Happening happening : expected) {
        const char* text = WordOf(happening).text;
        at = std::find(at, history.end(), happening);
        if (at == history.end()) {
            return fmt::format("was not {}{}", text, previous);
        }
        previous = fmt::format(" after it was {}", text);
    }
    // A busy machine can take a program through several rounds of the stages.
    const bool isRight = fate == Fate::kStages || history.size() == expected.size();
    return isRight ? "" : "was " + HistoryText(observer);
}

std::string ShortcomingOfUntouched(const Observer& observer) {
    // A machine that does other work may keep a process waiting.
    constexpr milliseconds kBearablePause{3000};
    if (observer.LongestPause() > kBearablePause) {
        return "stood still for " + SecondsText(observer.LongestPause());
    }
    return observer.Peak() < observer.Of().leastPeak
               ? "never broke its quota, so nothing is shown: " + observer.PeakText() + " at most"
               : "";
}

}  // namespace

std::string FateText(Fate fate) {
    return ExpectationOf(fate).text;
}

std::string HistoryText(const Observer& observer) {
    std::string text;
    std::set<Happening> told;
    for (const Happening happening : observer.History()) {
        // That a process was moved matters only where nothing is to happen.
        const bool matters = happening != Happening::kMoved || observer.Of().fate == Fate::kUntouched;
        if (matters && told.insert(happening).second) {
            const auto times = std::ranges::count(observer.History(), happening);
            text += (text.empty() ? "" : ", ") + std::string(WordOf(happening).text);
            text += times > 1 ? " x" + std::to_string(times) : "";
        }
    }
    return text.empty() ? "ran on, up to " + observer.PeakText() : text;
}

bool IsFateReached(const Observer& observer) {
    const Fate fate = observer.Of().fate;
    return observer.HasEnded() || fate == Fate::kUntouched ||
           (fate == Fate::kFrozen && observer.Saw(Happening::kFrozen));
}

std::string Shortcoming(const Observer& observer) {
    std::string shortcoming = ShortcomingOfHistory(observer);
    if (shortcoming.empty() && observer.Of().fate == Fate::kUntouched) {
        shortcoming = ShortcomingOfUntouched(observer);
    }
    return shortcoming.empty() && !observer.IsAsAtStart() ? "was not put back where it came from"
                                                          : shortcoming;
}

}  // namespace KITE::Demo
