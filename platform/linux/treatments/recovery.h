#pragma once

#include <functional>
#include <system_error>
#include <vector>

#include "treatments/treatment_context.h"
#include "visibility.h"

// The way back from treatments.
namespace KITE::Linux {

// Which treatments go on.
struct Kept {
    bool suppression = false;
    bool freeze = false;
};

// Ends the treatments of the record's process but those kept. After an error something is left in the record,
// which is then still on disk. `pidfd` names the process; kNoPidfd if it has ended.
std::error_code Undo(TreatmentContext& context, TreatmentRecord& record, int pidfd, Kept kept = {});

// Ends every treatment of each. An error line tells what could not be ended. Whether all were.
using UndoOne = std::function<std::error_code(TreatmentRecord&)>;
bool ReleaseEach(std::vector<TreatmentRecord*> left, const UndoOne& undo);

// Releases what a killed host has left treated, by the records in the run directory. What another living host
// treats stays so. False, with an error line each, when something could not be released or a record cannot be
// understood. Before this process treats anything itself.
KITE_API bool ReleaseLeftTreatments();
bool ReleaseLeftTreatments(TreatmentContext& context);

}  // namespace KITE::Linux
