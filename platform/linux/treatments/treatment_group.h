#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "base/result.h"
#include "treatments/control_groups.h"
#include "treatments/treatment_context.h"

// The control group in which a process is treated: the one that it is in, where it is alone there, or else a
// new one below that.
namespace KITE::Linux {

inline constexpr const char* kIdleFile = "cpu.idle";

struct TreatmentGroup {
    Group group;
    bool isNew = false;  // still to be made
};

// ENOENT without such a hierarchy; EBUSY where a service manager owns the groups and would be surprised by
// another.
Result<TreatmentGroup> FindTreatmentGroup(const TreatmentContext& context, const TreatmentRecord& record,
                                          Hierarchy hierarchy);

// The group with the present values of the file and, if it is named, of the file with the weight.
ChangedGroup BeforeTheChange(const TreatmentGroup& place, const char* file, const char* weightFile = nullptr);

// Writes the plan to disk, with the placement if the group is new.
std::error_code SavePlanFor(const TreatmentContext& context, const TreatmentGroup& place,
                            TreatmentRecord& record, TreatmentRecord planned);

// Sets the file of the group to "1" and moves the process there, if it is new. ESRCH when the process has
// ended meanwhile.
std::error_code EnterGroup(const TreatmentContext& context, const TreatmentGroup& place, pid_t pid, int pidfd,
                           const char* file);

// Writes a value back. A group that has gone needs nothing restored.
std::error_code RestoreValue(const TreatmentContext& context, const Group& group, const char* file,
                             const std::string& value);

// "cgroup.freeze of cgroup v2 /sys/fs/cgroup/x"
std::string MeansText(const char* file, const Group& group);

// Moves the process and its children back from groups that no treatment uses any more, removes those groups,
// and brings the record on disk up to date, or removes it when nothing is left in it. The first error.
std::error_code CleanUp(const TreatmentContext& context, TreatmentRecord& record);

}  // namespace KITE::Linux
