#pragma once

#include <sys/types.h>

#include <chrono>
#include <system_error>
#include <vector>

#include "treatments/announcement.h"
#include "treatments/current_treatments.h"
#include "treatments/end_watcher.h"
#include "treatments/kill.h"
#include "treatments/treatment_context.h"

namespace KITE::Linux {

// What happens to treatments without a request: when the process ends, everything is undone; when the time of
// a freeze is over, the process is thawed; what could not be undone is tried again.
class AutomaticEnds {
  public:
    // A killed process that lives longer than `killPatience` is said to be pending.
    AutomaticEnds(TreatmentContext& context, CurrentTreatments& current, EndWatcher& watcher,
                  std::chrono::milliseconds killPatience)
        : context_(context), current_(current), watcher_(watcher), kills_(killPatience) {}

    // See CurrentTreatments; also sets the watcher's moment. With the table's lock held.
    void Settle(Treated& treated, const std::error_code& error);
    // A line of the log will say whether the killed process is gone or pending. With the table's lock held.
    void ExpectDeath(const ReportedProcessPtr& process);
    // Says so now of every killed process, and forgets them. With the table's lock held.
    void FinishKills() { kills_.Finish(); }

    // For the watcher.
    void OnEnd(pid_t pid);
    void OnMoment();

  private:
    using Clock = Treated::Clock;

    void SetMoment();
    void UndoEnded(pid_t pid, std::vector<Announcement>& toTell);
    void ThawDue(Clock::time_point now, std::vector<Announcement>& toTell);
    void RetryDue(Clock::time_point now, std::vector<Announcement>& toTell);
    void Tell(const std::vector<Announcement>& toTell) const;

    TreatmentContext& context_;
    CurrentTreatments& current_;
    EndWatcher& watcher_;
    PendingKills kills_;  // guarded by the table's lock
};

}  // namespace KITE::Linux
