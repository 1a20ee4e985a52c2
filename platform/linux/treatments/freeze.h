#pragma once

#include "treatments/treatment_context.h"

namespace KITE::Linux {

// The process does not run at all: by the freezer of its control group, or else by SIGSTOP. Children that
// were born while it was treated share its group and are frozen with it. A process that was stopped already
// stays stopped when it is thawed.
//
// The record is kept in step as by Suppress. `pidfd` names the record's process; kNoPidfd if it has ended.
// Waits for the file system, and a freeze up to kFreezerLimit.
TreatmentResult Freeze(TreatmentContext& context, TreatmentRecord& record, int pidfd);
TreatmentResult Thaw(TreatmentContext& context, TreatmentRecord& record, int pidfd);

}  // namespace KITE::Linux
