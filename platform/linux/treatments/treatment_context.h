#pragma once

#include <string>
#include <system_error>

#include "treatments/control_groups.h"
#include "treatments/idle_family.h"
#include "treatments/record_store.h"
#include "treatments/treatment_record.h"

namespace KITE::Linux {

// What every treatment works with. One thread at a time.
struct TreatmentContext {
    Cgroups cgroups;
    RecordStore records;
    // A dry run goes the same way and touches nothing: no signal, no policy, no group and no record on disk.
    bool isDryRun = false;
    TreatmentRecord emptyRecord = RecordOfThisHost();
    // The processes whose threads are idle by a suppression of their own, and not because their parent is.
    ProcessKeys suppressedByThreads = {};

    // As the settings have it.
    static TreatmentContext OfThisHost();
};

// What came of a treatment, or of its end.
struct TreatmentResult {
    std::error_code error;
    std::string means = {};  // "SIGSTOP", or the file and the group; empty where nothing had to be touched
    std::string note = {};   // what else the log and the event are to say
    // The treatment itself is done or undone, but a group made for it is still there, or the record on disk
    // is not up to date.
    std::error_code cleanupError = {};
    // The record could not be written. So nothing was done, and other means would not help.
    bool isUnrecorded = false;

    std::error_code FirstError() const { return error ? error : cleanupError; }
};

// Stands for the pidfd of a process that has ended.
inline constexpr int kNoPidfd = -1;

// Saves what is going to be done, and makes it the record. Whatever is done must be on disk before: if this
// process died in between, the next start could not undo it. Says so when it cannot be written.
std::error_code SavePlan(const TreatmentContext& context, TreatmentRecord& record, TreatmentRecord planned);

}  // namespace KITE::Linux
