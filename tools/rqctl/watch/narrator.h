#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace KITE::Rqctl {

// Tells events in plain words on standard output, a line each. What becomes of a report is told by the events
// that follow; where none does within kMoment, a line says that, and no more than can be known from it.
class Narrator {
  public:
    static constexpr std::chrono::milliseconds kMoment{2000};

    void Tell(const nlohmann::ordered_json& event);
    // Called when all events have been told that there are: how long until it must be called again, if no
    // event comes before.
    std::optional<std::chrono::milliseconds> TellOfSilence();

  private:
    using Clock = std::chrono::steady_clock;

    // A report that may lead to something.
    struct Open {
        int64_t time;  // milliseconds since the epoch
        int64_t pid;
        std::string name;
        Clock::time_point end;  // of the moment
    };

    void TellReport(const nlohmann::ordered_json& event);
    void TellOutcome(const nlohmann::ordered_json& event);
    static void TellNothingHappened(const Open& report);

    std::list<Open> open_;  // the oldest first
};

}  // namespace KITE::Rqctl
