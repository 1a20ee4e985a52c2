#pragma once

#include <string>
#include <system_error>

#include "runtime/settings.h"
#include "treatments/control_groups.h"
#include "treatments/record_store.h"
#include "treatments/treatment_record.h"

namespace KITE::Linux {

// What every treatment works with, as the settings have it. One thread at a time.
struct TreatmentContext {
    Cgroups cgroups = Cgroups::OfThisMachine();
    RecordStore records{RunDirectory()};
    // A dry run goes the same way and touches nothing: no signal, no policy, no group and no record on disk.
    bool isDryRun = GetSettings().isDryRun;
    TreatmentRecord emptyRecord = RecordOfThisHost();
    // The processes whose threads are idle by a suppression of their own, and not because their parent is.
    ProcessKeys suppressedByThreads = {};
};

// What came of a treatment, or of its end.
struct TreatmentResult {
    std::error_code error;
    std::string means = {};  // "SIGSTOP", or the file and the group; empty where nothing had to be touched
    std::string note = {};   // what else the log and the event are to say
    // Another means would not help, or would come on top of what could not be undone.
    bool isFinal = false;
};

// Stands for the pidfd of a process that has ended.
inline constexpr int kNoPidfd = -1;

}  // namespace KITE::Linux
