#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "treatments/reported_processes.h"
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
    // Of the last report before the latest treatment, which need not be the one that led to it: nobody tells
    // which did.
    Breach breach;
};

// What this process treats now. Waits for a treatment that is being done. Any thread.
KITE_API std::vector<TreatedProcess> ListTreatments();

inline constexpr int32_t kNotTreated = -1;

// Ends every treatment of a process at once, however often it was asked for, on behalf of that user; the ends
// that were to come find nothing left to do. 0; kNotTreated; ESRCH when there is no such process; or the
// error number of what could not be undone yet and is tried again. One log line and, where something was
// treated, one event. Waits as ListTreatments does. Any thread.
KITE_API int32_t ReleaseTreatment(pid_t pid, uid_t releasedBy);

// Ends every treatment of this process's and joins the thread behind them; from then on requests to suppress
// or freeze are refused. What could not be released stays on record, with an error line. Idempotent. Any
// thread.
KITE_API void ReleaseAllTreatments();

// Releases what a host that was killed has left treated, from the records in the state directory, and forgets
// what no longer exists. False, with an error line each, when something could not be released or a record
// cannot be understood. Before this process treats anything itself.
KITE_API bool ReleaseLeftTreatments();

}  // namespace KITE::Linux
