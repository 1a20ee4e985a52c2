#pragma once

#include "treatments/treatment_context.h"

namespace KITE::Linux {

// The process runs only when nothing else wants the processor: by cpu.idle of its control group, or else by
// SCHED_IDLE on every thread, which is weaker: it does not reach across login sessions where the kernel
// groups tasks by session. At the end, children born meanwhile get the main thread's policy, as far as they
// can be told (see IdleFamily); one that is suppressed itself meanwhile runs early then.
//
// Each keeps the record in step: it is on disk before anything is done, and goes when nothing is left to
// undo. When a suppression fails, what still has to be undone stays in it. `pidfd` names the record's
// process; kNoPidfd if it has ended. Waits for the file system.
TreatmentResult Suppress(TreatmentContext& context, TreatmentRecord& record, int pidfd);
TreatmentResult EndSuppression(TreatmentContext& context, TreatmentRecord& record, int pidfd);

// Lift a suppression, if there is one, and put it back in force: a process must run for a moment to be
// frozen, and on a busy machine a suppressed one would not do so in time.
void PauseSuppression(const TreatmentRecord& record, int pidfd);
void ResumeSuppression(const TreatmentRecord& record, int pidfd);

}  // namespace KITE::Linux
