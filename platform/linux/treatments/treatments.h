#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "treatments/current_treatments.h"
#include "treatments/end_watcher.h"
#include "treatments/reported_processes.h"
#include "treatments/treatment_context.h"
#include "visibility.h"

namespace KITE::Linux {

// The requests to treat processes, and to let them go.
//
// A request names a process by pid and name. It reaches the process that was reported, or fails: EPERM for a
// process that is never treated, ESRCH when no report of it has arrived or it is another by now. Each request
// writes one log line and one event. Any thread, several at once; a request may wait for another's freeze.
class KITE_API Treatments {
  public:
    static constexpr std::chrono::milliseconds kKillPatience{2000};

    // The process's own; others exist in tests only.
    static Treatments& Instance();

    explicit Treatments(TreatmentContext context, std::chrono::milliseconds killPatience = kKillPatience);
    // Leaves what is treated as it is, and on record.
    ~Treatments() { watcher_.Stop(); }

    // See ReportedProcesses::Remember. False, with an error line, when the process is not there or another by
    // now, or its end cannot be watched. Called on the serving thread.
    bool Remember(pid_t pid, int64_t startTime, const std::string& name, BrokenQuota brokenQuota = {});

    // Suppressions of one process are counted; the last end ends them.
    std::error_code Suppress(pid_t pid, const std::string& name);
    std::error_code EndSuppression(pid_t pid, const std::string& name);
    // Without a time until it is thawed. Of several freezes of one process the one that ends last counts.
    std::error_code Freeze(pid_t pid, const std::string& name, std::optional<std::chrono::milliseconds> time);
    std::error_code Thaw(pid_t pid, const std::string& name);
    // Succeeds once the signal is accepted. A later line says that the process is gone, or pending still.
    std::error_code Kill(pid_t pid, const std::string& name, const std::string& reason);

    // What is treated now.
    std::vector<TreatedProcess> List() {
        const auto lock = current_.Lock();
        return current_.List();
    }
    // Ends every treatment of a process at once, however often it was asked for, on behalf of that user; the
    // ends that were to come find nothing left to do. An error tells what could not be undone yet and is
    // tried again. Absent, with a log line and no event, when the process is not treated.
    std::optional<std::error_code> Release(pid_t pid, uid_t releasedBy);
    // Ends every treatment, since the host stops; from then on requests to suppress or freeze are refused.
    // What could not be released stays on record, with an error line. Idempotent.
    void ReleaseAll();

  private:
    using Treat = std::function<TreatmentResult(Treated&)>;
    // Absent when it was not treated so.
    using Undo = std::function<std::optional<TreatmentResult>(Treated&)>;

    std::error_code Begin(std::string_view event, pid_t pid, const std::string& name, const Treat& treat);
    std::error_code End(std::string_view event, pid_t pid, const std::string& name, const Undo& undo);

    TreatmentContext context_;  // guarded by the lock of current_
    const std::chrono::milliseconds killPatience_;
    EndWatcher watcher_;  // its thread uses what follows
    ReportedProcesses reported_{ReportedProcesses::UsualCapacity(), watcher_};
    CurrentTreatments current_{context_, watcher_};
};

}  // namespace KITE::Linux
