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

#include "treatments/reported_processes.h"
#include "treatments/treatment_record.h"
#include "treatments/undo.h"

namespace KITE::Linux {

// A process that is suppressed, frozen or both; or would be, in a dry run. Moments are in milliseconds since
// the epoch, 0 where there is none.
struct TreatedProcess {
    pid_t pid = 0;
    std::string name;
    int64_t suppressedSince = 0;
    int64_t frozenSince = 0;
    int64_t frozenUntil = 0;  // of a freeze that ends by itself
    // Of the last report before the latest treatment, which need not be the one that led to it: a request
    // does not say which did.
    BrokenQuota brokenQuota;
};

// What is asked for one process now, and what was done to it. The two differ while something could not be
// undone yet.
struct Treated {
    using Clock = std::chrono::steady_clock;

    // kNoPidfd if the process has ended.
    int Pidfd() const;
    // Without a time until it is thawed. Of several freezes the one that ends last counts.
    void AskForFreeze(std::optional<std::chrono::milliseconds> time);
    // Nothing is asked for any more.
    void Cancel();

    ReportedProcessPtr process;
    TreatmentRecord record;
    BrokenQuota brokenQuota;      // last reported when the latest treatment began
    int64_t suppressedSince = 0;  // milliseconds since the epoch
    int64_t frozenSince = 0;
    std::set<std::string> names;  // under which it was treated; it may have executed other programs
    int suppressions = 0;
    bool isFrozen = false;
    std::optional<Clock::time_point> thawAt;  // of a freeze that ends by itself
    RetryTime retry;
};

// The processes that are treated now.
class CurrentTreatments {
  public:
    // Held by whoever calls any of the operations below, uses an entry, or treats a process.
    [[nodiscard]] std::unique_lock<std::mutex> Lock() { return std::unique_lock(mutex_); }

    // Its entry, made if it is not there. It stays where it is until it is forgotten.
    Treated& Entry(const ReportedProcessPtr& process, const TreatmentRecord& emptyRecord);
    // Null when it is not treated.
    Treated* Find(const ProcessKey& key);
    // The living process of that pid.
    Treated* FindLiving(pid_t pid);
    std::vector<Treated*> All();
    void Forget(const Treated& treated);
    // After something was done: forgets a process of which nothing is on record any more. After an error, has
    // it tried again; without one, what failed before is still tried again.
    void Settle(Treated& treated, const std::error_code& error);
    // When the next freeze ends or something is tried again.
    std::optional<Treated::Clock::time_point> NextMoment() const;
    std::vector<TreatedProcess> List() const;

  private:
    std::mutex mutex_;  // guards what follows
    std::map<ProcessKey, Treated> treated_;
};

}  // namespace KITE::Linux
