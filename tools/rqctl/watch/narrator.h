#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <optional>

#include "shared/event.h"

namespace KITE::Rqctl {

// Tells events in plain words on standard output, a line each. What follows from a report is told by the
// events after it. Where none comes within kPatience, a line says that nothing was done.
class Narrator {
  public:
    static constexpr std::chrono::milliseconds kPatience{2000};

    void Tell(const Tools::Event& event);
    // Called when all events have been told: how long until the next call, if no event comes before.
    std::optional<std::chrono::milliseconds> TellOfSilence();

  private:
    void TellReport(const Tools::Event& event);
    void TellTreatment(const Tools::Event& event);
    // Of the reports whose patience has ended by that time, in ms since the epoch.
    void TellOfSilenceUntil(int64_t time);

    std::list<Tools::Event> open_;  // the reports that may lead to something, the oldest first
};

}  // namespace KITE::Rqctl
