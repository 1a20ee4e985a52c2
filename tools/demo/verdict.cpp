#include "demo/verdict.h"

#include <algorithm>
#include <set>
#include <vector>

namespace KITE::Demo {

namespace {

using History = std::vector<Happening>;

// Suppressed, frozen and killed, in that order, whatever lies between: a busy machine can take the program
// through several rounds.
std::string ShortcomingOfStages(const History& history) {
    const auto suppressed = std::ranges::find(history, Happening::kSuppressed);
    const auto frozen = std::find(suppressed, history.end(), Happening::kFrozen);
    const auto killed = std::find(frozen, history.end(), Happening::kKilled);
    if (suppressed == history.end()) {
        return "was never suppressed";
    }
    if (frozen == history.end()) {
        return "was not frozen after it was suppressed";
    }
    return killed == history.end() ? "was not killed after it was frozen" : "";
}

std::string ShortcomingOfUntouched(const Observer& observer) {
    // A machine that does other work may keep a process waiting.
    constexpr milliseconds kBearablePause{3000};
    if (!observer.History().empty()) {
        return "was " + HappeningText(observer.History().front());
    }
    if (observer.LongestPause() > kBearablePause) {
        return "stood still for " + SecondsText(observer.LongestPause());
    }
    return observer.Peak() < observer.Of().leastPeak
               ? "never broke its quota, so nothing is shown: " +
                     AmountText(observer.Of().resource, observer.Peak()) + " at most"
               : "";
}

std::string ShortcomingOfHistory(const Observer& observer) {
    // Moving a process is a means of the rest.
    History history = observer.History();
    std::erase(history, Happening::kMoved);
    switch (observer.Of().fate) {
        case Fate::kStages:
            return ShortcomingOfStages(history);
        case Fate::kKilled:
            return history == History{Happening::kKilled} ? "" : "was not killed at once";
        case Fate::kFrozen:
            return history == History{Happening::kFrozen, Happening::kThawed}
                       ? ""
                       : "was not frozen once and then thawed";
        case Fate::kUntouched:
            break;
    }
    return ShortcomingOfUntouched(observer);
}

}  // namespace

bool IsFateReached(const Observer& observer) {
    const bool hasEnded = observer.Saw(Happening::kKilled) || observer.Saw(Happening::kEnded);
    switch (observer.Of().fate) {
        case Fate::kStages:
        case Fate::kKilled:
            return hasEnded;
        case Fate::kFrozen:
            return hasEnded || observer.Saw(Happening::kFrozen);
        case Fate::kUntouched:
            break;
    }
    return true;
}

std::string Shortcoming(const Observer& observer) {
    const std::string shortcoming = ShortcomingOfHistory(observer);
    return shortcoming.empty() && !observer.IsAsAtStart() ? "was not put back where it came from"
                                                          : shortcoming;
}

std::string HistoryText(const Observer& observer) {
    std::string text;
    std::set<Happening> told;
    for (const Happening happening : observer.History()) {
        // That a process was moved matters only where nothing is to happen.
        const bool matters = happening != Happening::kMoved || observer.Of().fate == Fate::kUntouched;
        if (matters && told.insert(happening).second) {
            const auto times = std::ranges::count(observer.History(), happening);
            text += (text.empty() ? "" : ", ") + HappeningText(happening);
            text += times > 1 ? " x" + std::to_string(times) : "";
        }
    }
    return text.empty() ? "ran on, up to " + AmountText(observer.Of().resource, observer.Peak()) : text;
}

}  // namespace KITE::Demo
