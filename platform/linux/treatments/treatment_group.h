#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <system_error>

#include "treatments/control_groups.h"
#include "treatments/treatment_context.h"

// The control group in which a process is treated: its own where it is alone there, else a new one below.
namespace KITE::Linux {

// A means of treatment: a file of the group that is "1" while the treatment is in force.
struct GroupSwitch {
    Hierarchy hierarchy;
    const char* file;
    // Makes the place in a record for the values before.
    std::optional<ChangedGroup>& (*placeIn)(TreatmentRecord&);
    TreatmentResult (*undo)(TreatmentContext&, TreatmentRecord&, int pidfd);
};

inline constexpr const char* kIdleFile = "cpu.idle";

struct TreatmentGroup {
    Group group;
    bool isNew = false;  // still to be made
};

// Chooses the group, writes the plan to disk, and has the process enter; undone when that fails. ENOENT
// without such a hierarchy; EBUSY where a service manager owns the groups and would be surprised by another.
TreatmentResult TreatInGroup(TreatmentContext& context, TreatmentRecord& record, const GroupSwitch& means,
                             const std::function<std::error_code(const TreatmentGroup&)>& enter);

// Sets the file to "1" and moves the process there, if the group is new. ESRCH when it has ended.
std::error_code EnterGroup(const TreatmentContext& context, const TreatmentGroup& place, pid_t pid, int pidfd,
                           const char* file);

// Writes back what the file and the weight held before, if the group is still there.
TreatmentResult RestoreGroup(const TreatmentContext& context, const ChangedGroup& changed, const char* file);

// Moves the process and its children back from groups that no treatment uses, removes those, and writes the
// record, or removes it when it is empty. The record remembers the first error.
void CleanUp(const TreatmentContext& context, TreatmentRecord& record);

using Means = std::function<TreatmentResult()>;

// Tries one means after the other until one has treated the process or none can. In a dry run, none.
TreatmentResult TryEach(const TreatmentRecord& record, int pidfd, std::initializer_list<Means> means);

// Undoes one part of the record, if it is there, and takes it out. In a dry run, only takes it out.
template <typename Part, typename UndoPart>
TreatmentResult EndPart(const TreatmentContext& context, TreatmentRecord& record, std::optional<Part>& part,
                        UndoPart undo) {
    if (!part) {
        return {};
    }
    TreatmentResult result = context.isDryRun ? TreatmentResult() : undo(*part);
    if (!result.error) {
        part.reset();
    }
    CleanUp(context, record);
    return result;
}

}  // namespace KITE::Linux
