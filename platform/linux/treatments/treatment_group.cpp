#include "treatments/treatment_group.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "proc/pidfd.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

bool WasMadeFor(const TreatmentRecord& record, const Group& group) {
    return std::ranges::any_of(record.placements,
                               [&](const Placement& placement) { return placement.group == group; });
}

// A v2 group has the files of the cpu controller only if its parent enables that for its children.
std::error_code EnableCpuFor(const Cgroups& cgroups, const Group& group) {
    const Group parent = ParentOf(group);
    if (group.hierarchy != Hierarchy::kUnified || ReadGroupFile(group, kIdleFile)) {
        return {};
    }
    if (cgroups.IsOwnedByManager(parent)) {
        return ErrorOf(EBUSY);
    }
    // Stays enabled: whether another group has come to rely on it cannot be known later.
    const std::error_code error = WriteGroupFile(parent, "cgroup.subtree_control", "+cpu");
    if (!error) {
        PLATFORM_LOGI("the cpu controller was enabled below %{public}s and stays so", parent.path.c_str());
    }
    return error;
}

std::error_code RemovePlacement(const Cgroups& cgroups, const Placement& placement) {
    if (!cgroups.IsReachable(placement.group.hierarchy)) {
        return ErrorOf(ENODEV);
    }
    const std::error_code error = MoveAll(placement.group, placement.home);
    return error ? error : RemoveGroup(placement.group);
}

std::error_code RemoveUnusedGroups(const Cgroups& cgroups, TreatmentRecord& record) {
    const std::vector<Group> used = record.GroupsInUse();
    std::error_code firstError;
    // The youngest first: a group may lie below an older one.
    for (size_t i = record.placements.size(); i-- > 0;) {
        if (std::ranges::find(used, record.placements[i].group) != used.end()) {
            continue;
        }
        const std::error_code error = RemovePlacement(cgroups, record.placements[i]);
        if (!error) {
            record.placements.erase(record.placements.begin() + static_cast<ptrdiff_t>(i));
        }
        firstError = firstError ? firstError : error;
    }
    return firstError;
}

// ENOENT without such a hierarchy; EBUSY where a service manager owns the groups.
Result<TreatmentGroup> FindGroup(const Cgroups& cgroups, const TreatmentRecord& record, Hierarchy hierarchy) {
    const std::optional<Group> present = cgroups.GroupOf(record.pid, hierarchy);
    if (!present || !cgroups.IsReachable(hierarchy)) {
        return ErrorOf(ENOENT);
    }
    const bool isItsOwn = cgroups.IsBelowRoot(*present) && IsAloneIn(*present, record.pid);
    if (isItsOwn || WasMadeFor(record, *present)) {
        return TreatmentGroup{*present};
    }
    if (cgroups.IsOwnedByManager(*present)) {
        return ErrorOf(EBUSY);
    }
    return TreatmentGroup{record.GroupBelow(*present), true};
}

const char* WeightFile(Hierarchy hierarchy) {
    return hierarchy == Hierarchy::kUnified ? "cpu.weight" : "cpu.shares";
}

ChangedGroup BeforeTheChange(const TreatmentGroup& place, std::string_view file) {
    if (place.isNew) {
        return {place.group, "0", {}};
    }
    const char* weightFile = file == kIdleFile ? WeightFile(place.group.hierarchy) : nullptr;
    return {place.group, ReadGroupFile(place.group, file).value_or("0"),
            weightFile == nullptr ? "" : ReadGroupFile(place.group, weightFile).value_or("")};
}

std::error_code RestoreValue(const Cgroups& cgroups, const Group& group, const char* file,
                             const std::string& value) {
    const std::error_code error = WriteGroupFile(group, file, value);
    const bool isMissing = Is(error, ENOENT) || Is(error, ENODEV);
    return isMissing && cgroups.IsReachable(group.hierarchy) ? std::error_code() : error;
}

// "cgroup.freeze of cgroup v2 /sys/fs/cgroup/x"
std::string MeansText(const char* file, const Group& group) {
    const char* version = group.hierarchy == Hierarchy::kUnified ? "v2" : "v1";
    return std::string(file) + " of cgroup " + version + " " + group.path;
}

}  // namespace

TreatmentResult TreatInGroup(TreatmentContext& context, TreatmentRecord& record, const GroupSwitch& means,
                             const std::function<std::error_code(const TreatmentGroup&)>& enter) {
    const Result<TreatmentGroup> place = FindGroup(context.cgroups, record, means.hierarchy);
    if (!place) {
        return {place.Code(), MeansText(means.file, {means.hierarchy, "(none usable)"})};
    }
    TreatmentResult result{.error = {}, .means = MeansText(means.file, place->group)};
    TreatmentRecord planned = record;
    means.placeIn(planned) = BeforeTheChange(*place, means.file);
    if (place->isNew) {
        planned.placements.push_back({ParentOf(place->group), place->group});
    }
    result.error = context.records.Plan(record, std::move(planned));
    if (result.error) {
        result.isFinal = true;
        return result;
    }
    result.error = enter(*place);
    if (result.error) {
        const bool isLeft = static_cast<bool>(means.undo(context, record, kNoPidfd).error);
        result.isFinal = isLeft || Is(result.error, ETIMEDOUT);
    }
    return result;
}

std::error_code EnterGroup(const TreatmentContext& context, const TreatmentGroup& place, pid_t pid, int pidfd,
                           const char* file) {
    std::error_code error = place.isNew ? CreateGroup(place.group) : std::error_code();
    if (!error && file == std::string_view(kIdleFile)) {
        error = EnableCpuFor(context.cgroups, place.group);
    }
    if (!error) {
        error = WriteGroupFile(place.group, file, "1");
    }
    if (!error && place.isNew) {
        error = MoveProcess(pid, place.group);
    }
    // The move goes by the pid, which means no other process as long as this one lives.
    return HasExited(pidfd) ? ErrorOf(ESRCH) : error;
}

TreatmentResult RestoreGroup(const TreatmentContext& context, const ChangedGroup& changed, const char* file) {
    const auto& [group, previous, previousWeight] = changed;
    TreatmentResult result{RestoreValue(context.cgroups, group, file, previous), MeansText(file, group)};
    if (!result.error && !previousWeight.empty() && previous == "0") {
        result.error = RestoreValue(context.cgroups, group, WeightFile(group.hierarchy), previousWeight);
    }
    return result;
}

void CleanUp(const TreatmentContext& context, TreatmentRecord& record) {
    if (context.isDryRun) {
        return;
    }
    const std::error_code before =
        std::exchange(record.cleanupError, RemoveUnusedGroups(context.cgroups, record));
    const std::error_code error =
        record.IsEmpty() ? context.records.Remove(record) : context.records.Write(record);
    record.cleanupError = record.cleanupError ? record.cleanupError : error;
    if (record.cleanupError && !before) {
        PLATFORM_LOGW("a group of pid %{public}d or its record cannot be removed yet: %{public}s", record.pid,
                      record.cleanupError.message().c_str());
    }
}

TreatmentResult TryEach(const TreatmentRecord& record, int pidfd, std::initializer_list<Means> means) {
    TreatmentResult result;
    for (const Means& treat : means) {
        if (result.error) {
            PLATFORM_LOGI(
                "pid %{public}d cannot be treated by %{public}s (%{public}s); another means is tried",
                record.pid, result.means.c_str(), result.error.message().c_str());
        }
        result = treat();
        if (!result.error || result.isFinal || HasExited(pidfd)) {
            break;
        }
    }
    return result;
}

}  // namespace KITE::Linux
