#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "treatments/announcement.h"
#include "treatments/end_watcher.h"
#include "treatments/kill.h"
#include "treatments/reported_processes.h"
#include "treatments/treatment_context.h"

namespace KITE::Linux {

// A process that is treated, or would be but for a dry run. Moments in milliseconds since the epoch, or 0.
struct TreatedProcess {
    pid_t pid = 0;
    std::string name;
    int64_t suppressedSince = 0;
    int64_t frozenSince = 0;
    int64_t frozenUntil = 0;  // of a freeze that ends by itself
    // Of the last report before the latest request, which does not say which report led to it.
    BrokenQuota brokenQuota;
};

// What is asked for one process, and what was done to it, which differ while something cannot be undone.
struct Treated {
    using Clock = std::chrono::steady_clock;

    // kNoPidfd if the process has ended.
    int Pidfd() const { return HasExited(process->pidfd) ? kNoPidfd : process->pidfd; }
    // Whether something on record is not asked for: it could not be undone yet.
    bool IsLeft() const;
    // Without a time until it is thawed. Of several freezes the one that ends last counts.
    void AskForFreeze(std::optional<std::chrono::milliseconds> time);
    void CancelFreeze();
    void CancelAll() {
        suppressions = 0;
        CancelFreeze();
    }
    // Ends what is not asked for. An error tells what is left on record.
    std::error_code UndoUnwanted(TreatmentContext& context);

    ReportedProcessPtr process;  // as last reported before the latest request
    TreatmentRecord record;
    int64_t suppressedSince = 0;  // milliseconds since the epoch
    int64_t frozenSince = 0;
    std::set<std::string> names;  // under which it was treated; it may have executed other programs
    int suppressions = 0;
    bool isFrozen = false;
    std::optional<Clock::time_point> thawAt;   // of a freeze that ends by itself
    std::optional<Clock::time_point> retryAt;  // when something is undone that could not be before
    std::chrono::milliseconds retryPause{0};
    std::optional<Death> death;  // when it was killed
};

// The processes that are treated now or die of a kill, and what happens to them without a request: all is
// undone when one ends, it is thawed when its freeze is over, and what could not be undone is tried again.
class CurrentTreatments {
  public:
    CurrentTreatments(TreatmentContext& context, EndWatcher& watcher)
        : context_(context), watcher_(watcher) {}

    // Held for each operation below but DoWhatIsDue, and while an entry is used or a process treated.
    [[nodiscard]] std::unique_lock<std::mutex> Lock() { return std::unique_lock(mutex_); }

    // Its entry, made if it is not there. It stays where it is until Settle forgets it.
    Treated& Entry(const ReportedProcessPtr& process);
    // The treated, living process of that pid; null when there is none.
    Treated* FindLiving(pid_t pid);
    // After something was done: forgets a process of which nothing is on record any more, and has undone
    // later what could not be undone: soon at first, then after twice as long each time.
    void Settle(Treated& treated);
    std::vector<TreatedProcess> List() const;
    // Ends every treatment and forgets it; what cannot be ended stays on record.
    void ReleaseAll();

    // Does what is due now, and of the process that has ended, if any. Takes the lock. For the watcher.
    void DoWhatIsDue(std::optional<pid_t> ended);

  private:
    using Clock = Treated::Clock;

    void Thaw(Treated& treated, std::vector<Announcement>& toTell);
    void TryToUndo(Treated& treated, std::vector<Announcement>& toTell);
    void SetMoment();

    TreatmentContext& context_;  // guarded by the lock, as what follows
    EndWatcher& watcher_;
    std::mutex mutex_;
    std::map<ProcessKey, Treated> treated_;
};

}  // namespace KITE::Linux
