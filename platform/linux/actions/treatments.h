#pragma once

#include "visibility.h"

namespace KITE::Linux {

// Ends every treatment of this process's and joins the thread behind them; from then on requests to suppress
// or freeze are refused. What could not be released stays on record, with an error line. Idempotent. Any
// thread.
KITE_API void ReleaseAllTreatments();

// Releases what a host that was killed has left treated, from the records in the state directory, and forgets
// what no longer exists. False, with an error line each, when something could not be released or a record
// cannot be understood. Before this process treats anything itself.
KITE_API bool ReleaseLeftTreatments();

}  // namespace KITE::Linux
