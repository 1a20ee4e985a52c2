#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "base/result.h"
#include "treatments/control_groups.h"
#include "treatments/idle_threads.h"

namespace KITE::Linux {

// A group made for one process: it was moved there from its home, the group above.
struct Placement {
    Group home;
    Group group;
};

// A group in which a value was changed, and the values before.
struct ChangedGroup {
    Group group;
    std::string previous;
    std::string previousWeight;  // cpu.idle takes the weight with it; empty when there is none to restore
};

struct SuppressionRecord {
    std::optional<ChangedGroup> idleGroup;  // else the threads were made idle
    std::vector<ThreadPolicy> threads;      // how they were scheduled before
    IdleFamily family;                      // when the threads were made idle: the children are idle too
};

struct FreezeRecord {
    std::optional<ChangedGroup> frozenGroup;  // else the process was stopped by a signal
    bool wasStopped = false;                  // it was stopped before, and stays so when it is thawed
};

// What was done to one process: enough to undo it without knowing anything else.
struct TreatmentRecord {
    std::string bootId;
    pid_t pid = 0;
    int64_t startTime = 0;
    std::string processName;
    pid_t hostPid = 0;  // of the host that treats it
    int64_t hostStartTime = 0;
    std::vector<Placement> placements;
    std::optional<SuppressionRecord> suppression;
    std::optional<FreezeRecord> freeze;
    // Not on disk: why a group that was made is still there, or why the record on disk is not up to date.
    std::error_code cleanupError = {};

    bool IsEmpty() const { return placements.empty() && !suppression && !freeze && !cleanupError; }
    // Whether another host made the record and lives. Also true when that cannot be known.
    bool IsOfAnotherLivingHost() const;
    // Those in which a value is changed.
    std::vector<Group> GroupsInUse() const;
    // Names the record's file and the groups made for the process.
    std::string Key() const { return std::to_string(pid) + "-" + std::to_string(startTime); }
    Group GroupBelow(const Group& home) const { return {home.hierarchy, home.path + "/kite-" + Key()}; }
};

// Tells one start of the machine from another; empty when it cannot be read.
std::string CurrentBootId();

// Names this host and this start of the machine, and no process.
TreatmentRecord RecordOfThisHost();

// The record as a JSON document, and back: only if all of it is well formed, since it may be damaged.
std::string WriteRecord(const TreatmentRecord& record);
Result<TreatmentRecord> ReadRecord(const std::string& text);

// Whether each group of the record lies where a treatment could have changed it.
bool GroupsArePlausible(const TreatmentRecord& record, const Cgroups& cgroups);

}  // namespace KITE::Linux
