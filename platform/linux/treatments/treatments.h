#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "treatments/end_watcher.h"
#include "treatments/reported_processes.h"
#include "treatments/treatment_steps.h"
#include "visibility.h"

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

// The reported processes and what is being done to them.
//
// Requests name a process by pid and name. They reach the process that was reported, or fail: EPERM for a
// process that is never treated, ESRCH when no report of it has arrived or it is another by now. Each request
// writes one log line and one event. Any thread, several at once; a request may wait for another's freeze.
class KITE_API Treatments {
  public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        Cgroups cgroups;
        std::string stateDirectory;
        std::chrono::milliseconds killPatience{2000};  // after it, a killed process is said to be pending
        bool isDryRun = false;                         // see TreatmentSteps
    };

    // The process's own; others exist in tests only.
    static Treatments& Instance();

    explicit Treatments(Options options);
    // Leaves what is treated as it is, and on record.
    ~Treatments();
    Treatments(const Treatments&) = delete;
    Treatments& operator=(const Treatments&) = delete;

    // Keeps hold of a process that a report has named, so that what is decided about it later reaches this
    // process or none. See ReportedProcesses::Remember. Called on the serving thread.
    bool Remember(pid_t pid, int64_t startTime, const std::string& name, BrokenQuota brokenQuota = {});
    // Ends every treatment and joins the thread behind them; from then on requests to suppress or freeze are
    // refused. What could not be released stays on record, with an error line. Idempotent.
    void ReleaseAll();
    // Releases what a host that was killed has left treated, from the records in the state directory, and
    // forgets what no longer exists. False, with an error line each, when something could not be released or
    // a record cannot be understood. Before this process treats anything itself.
    bool ReleaseLeft();

    // 0 or an error number from here on.

    // Suppressions of one process are counted; the last end ends them.
    int32_t Suppress(pid_t pid, const std::string& name);
    int32_t EndSuppression(pid_t pid, const std::string& name);
    // Without a time until it is thawed. Of several freezes of one process the one that ends last counts.
    int32_t Freeze(pid_t pid, const std::string& name, std::optional<std::chrono::milliseconds> time);
    int32_t Thaw(pid_t pid, const std::string& name);
    // 0 once the signal is accepted. A later line says that the process is gone, or pending still.
    int32_t Kill(pid_t pid, const std::string& name, const std::string& reason);

    // What this process treats now.
    std::vector<TreatedProcess> List();

    static constexpr int32_t kNotTreated = -1;
    // Ends every treatment of a process at once, however often it was asked for, on behalf of that user; the
    // ends that were to come find nothing left to do. 0; kNotTreated; ESRCH when there is no such process; or
    // the error number of what could not be undone yet and is tried again. One log line and, where something
    // was treated, one event.
    int32_t Release(pid_t pid, uid_t releasedBy);

  private:
    static constexpr std::chrono::milliseconds kFirstRetryPause{100};

    struct Treated {
        ProcessHandlePtr handle;
        TreatmentRecord record;
        BrokenQuota brokenQuota;      // last reported when the latest treatment began
        int64_t suppressedSince = 0;  // milliseconds since the epoch
        int64_t frozenSince = 0;
        std::set<std::string> names;  // under which it was treated; it may have executed other programs
        int suppressions = 0;
        bool isFrozen = false;
        std::optional<Clock::time_point> thawAt;   // of a freeze that ends by itself
        std::optional<Clock::time_point> retryAt;  // something could not be undone
        std::chrono::milliseconds retryPause = kFirstRetryPause;
    };
    // Of the process's pid and start time.
    using Key = std::pair<pid_t, int64_t>;
    using TreatedMap = std::map<Key, Treated>;

    struct PendingKill {
        ProcessHandlePtr handle;
        Clock::time_point since;
        bool isOverdue = false;
    };

    // What became of a request, for the log and the events.
    struct Result {
        const char* event;
        pid_t pid;
        std::string name;
        Step step;
        std::string reason;
        std::optional<uid_t> by = std::nullopt;  // of a release
    };

    struct Admission {
        ProcessHandlePtr handle;
        int error = 0;
        std::string reason;
    };
    // Without the mutex: it reads the process's memory, which may wait.
    Admission Admit(pid_t pid, const std::string& name) const;

    // With the mutex held.
    Result BeginSuppression(const ProcessHandlePtr& handle, const std::string& name);
    Result BeginFreeze(const ProcessHandlePtr& handle, const std::string& name,
                       std::optional<std::chrono::milliseconds> time);
    Treated& EntryOf(const ProcessHandlePtr& handle);
    // The living process of that pid, if it was treated under that name.
    TreatedMap::iterator FindTreated(pid_t pid, const std::string& name);
    int Undo(Treated& treated, bool all) const;
    int EndAll(TreatedMap::iterator entry);
    void Conclude(TreatedMap::iterator entry, int error);
    void RearmTimer();
    void ThawDue(Clock::time_point now, std::vector<Result>& results);
    void RetryDue(Clock::time_point now, std::vector<Result>& results);
    void Retry(TreatedMap::iterator entry, std::vector<Result>& results);
    void LiftForKill(const ProcessHandle& handle);
    void AwaitDeath(const ProcessHandlePtr& handle);
    void CheckKills(Clock::time_point now);
    void UndoEnded(pid_t pid, std::vector<TreatmentRecord>& ended);
    int ReleaseOne(TreatmentRecord& record);
    // What ReleaseLeft can do something about. False, with a line for each file, when there are others.
    bool ReadLeft(std::vector<TreatmentRecord>& records);

    void OnExited(pid_t pid);
    void OnTimeUp();
    int32_t Announce(const Result& result) const;
    static void Record(const Result& result);
    // That nothing is left of a treatment, for a reason that the log has told.
    static void RecordEnd(const TreatmentRecord& record, const char* reason);

    const TreatmentSteps steps_;
    const std::chrono::milliseconds killPatience_;
    ReportedProcesses handles_;

    std::mutex mutex_;  // guards what follows
    TreatedMap treated_;
    std::map<Key, PendingKill> kills_;

    EndWatcher watcher_;  // its thread uses all of the above
};

}  // namespace KITE::Linux
