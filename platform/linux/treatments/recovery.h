#pragma once

#include "treatments/treatment_context.h"
#include "visibility.h"

namespace KITE::Linux {

// Releases what a host that was killed has left treated, from the records in the run directory, and forgets
// what no longer exists. What another living host treats stays so. False, with an error line each, when
// something could not be released or a record cannot be understood. Before this process treats anything
// itself.
KITE_API bool ReleaseLeftTreatments();
bool ReleaseLeftTreatments(TreatmentContext& context);

}  // namespace KITE::Linux
