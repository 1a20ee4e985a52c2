#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "treatments/control_groups.h"
#include "treatments/thread_policies.h"

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

struct Suppression {
    std::optional<ChangedGroup> idleGroup;  // else the threads were made idle
    std::vector<ThreadPolicy> threads;
    IdleFamily family;  // of the latter form: the children are idle too
};

struct Freeze {
    std::optional<ChangedGroup> frozenGroup;  // else the process was stopped by a signal
    bool wasStopped = false;                  // by somebody else, before
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
    std::optional<Suppression> suppression;
    std::optional<Freeze> freeze;

    bool IsEmpty() const { return placements.empty() && !suppression && !freeze; }
    // True while another host, which lives, treats the process: nothing is left then. Also true when it
    // cannot be known whether that host lives.
    bool IsInOtherHands() const;
    // Of its record's file and of the groups made for it.
    std::string Key() const { return std::to_string(pid) + "-" + std::to_string(startTime); }
    Group GroupBelow(const Group& home) const { return {home.hierarchy, home.path + "/kite-" + Key()}; }
};

std::string CurrentBootId();

// The record as a JSON document, and back. A document comes from a file that others may have damaged: absent
// unless all of it is well formed.
std::string WriteRecord(const TreatmentRecord& record);
std::optional<TreatmentRecord> ParseRecord(const std::string& text);
// Whether each group of the record lies where a treatment could have changed it.
bool GroupsArePlausible(const TreatmentRecord& record, const Cgroups& cgroups);

// The records in <state>/treated, one file each. Operations return 0 or an error number. One process at a
// time may use the directory.
class RecordStore {
  public:
    explicit RecordStore(std::string stateDirectory) : stateDirectory_(std::move(stateDirectory)) {}

    int Write(const TreatmentRecord& record) const;
    int Remove(const TreatmentRecord& record) const;

    struct Left {
        std::vector<TreatmentRecord> records;
        std::vector<std::string> malformed;  // names of files that hold no record
        // Names of files that may hold one: it cannot be read now, or its groups are not those of this
        // machine's mounts (ENODEV).
        std::vector<std::pair<std::string, int>> unclear;
        int error = 0;  // the directory's; 0 when there is none, or when it is another user's
    };
    Left ReadAll(const Cgroups& cgroups) const;
    // Renames a file so that it counts as a record no more, and can still be looked at.
    int SetAside(const std::string& name) const;

  private:
    const std::string stateDirectory_;
};

}  // namespace KITE::Linux
