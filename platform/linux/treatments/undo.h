#pragma once

#include <chrono>
#include <optional>
#include <system_error>
#include <vector>

#include "treatments/announcement.h"
#include "treatments/treatment_context.h"

namespace KITE::Linux {

struct Treated;

// Ends every treatment of the record's process. After an error something is left in the record, which is then
// still on disk. `pidfd` names the process; kNoPidfd if it has ended.
std::error_code UndoAll(TreatmentContext& context, TreatmentRecord& record, int pidfd);

// When something that could not be undone is tried again: soon at first, then after twice as long each time.
class RetryTime {
  public:
    using Clock = std::chrono::steady_clock;

    void Schedule();
    void Clear();
    const std::optional<Clock::time_point>& Moment() const { return moment_; }

  private:
    static constexpr std::chrono::milliseconds kFirstPause{100};
    static constexpr std::chrono::milliseconds kLongestPause{5000};

    std::optional<Clock::time_point> moment_;
    std::chrono::milliseconds pause_ = kFirstPause;
};

// Tries again to undo what is on record and no longer asked for; all of it if the process has ended. Adds
// what has succeeded now to what is to be told. The first error.
std::error_code TryAgain(TreatmentContext& context, Treated& treated, std::vector<Announcement>& toTell);

}  // namespace KITE::Linux
