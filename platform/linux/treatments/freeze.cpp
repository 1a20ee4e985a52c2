#include "treatments/freeze.h"

#include <signal.h>

#include <cerrno>
#include <utility>

#include "proc/pidfd.h"
#include "proc/process_stat.h"
#include "runtime/platform_log.h"
#include "treatments/suppress.h"
#include "treatments/treatment_group.h"

namespace KITE::Linux {

namespace {

constexpr const char* kFreezeFile = "cgroup.freeze";

// Only by a v2 freezer: a process in a v1 freezer does not die of SIGKILL until it is thawed.
TreatmentResult FreezeInGroup(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    const Result<TreatmentGroup> place = FindTreatmentGroup(context, record, Hierarchy::kUnified);
    if (!place) {
        return {place.Code()};
    }
    TreatmentRecord planned = record;
    planned.freeze.emplace().frozenGroup = BeforeTheChange(*place, kFreezeFile);
    if (const std::error_code error = SavePlanFor(context, *place, record, std::move(planned))) {
        return {.error = error, .isUnrecorded = true};
    }
    PauseSuppression(record);
    TreatmentResult result{EnterGroup(context, *place, record.pid, pidfd, kFreezeFile),
                           MeansText(kFreezeFile, place->group)};
    if (!result.error) {
        result.error = AwaitFrozen(place->group, pidfd, kFreezerLimit);
    }
    ResumeSuppression(record, pidfd);
    if (result.error) {
        result.cleanupError = Thaw(context, record, kNoPidfd).FirstError();
    }
    return result;
}

TreatmentResult StopBySignal(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    const Result<ProcessStat> stat = ReadProcessStat(record.pid);
    if (!stat || HasExited(pidfd)) {
        return {ErrorOf(ESRCH), "SIGSTOP"};
    }
    TreatmentRecord planned = record;
    planned.freeze = FreezeRecord{std::nullopt, stat->IsStopped()};
    if (const std::error_code error = SavePlan(context, record, std::move(planned))) {
        return {.error = error, .isUnrecorded = true};
    }
    if (stat->IsStopped()) {
        return {.error = {}, .note = "it was stopped already"};
    }
    TreatmentResult result{SendSignal(pidfd, SIGSTOP), "SIGSTOP"};
    if (result.error) {
        record.freeze.reset();
        result.cleanupError = CleanUp(context, record);
    }
    return result;
}

TreatmentResult FreezeByAnyMeans(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    TreatmentResult byGroup = FreezeInGroup(context, record, pidfd);
    const bool isSettled =
        !byGroup.error || byGroup.isUnrecorded || Is(byGroup.error, ESRCH) || Is(byGroup.error, ETIMEDOUT);
    if (isSettled || record.freeze || HasExited(pidfd)) {
        return byGroup;
    }
    PLATFORM_LOGI(
        "pid %{public}d cannot be frozen by a control group (%{public}s), it is stopped by a signal",
        record.pid, byGroup.error.message().c_str());
    TreatmentResult bySignal = StopBySignal(context, record, pidfd);
    if (!bySignal.cleanupError) {
        bySignal.cleanupError = byGroup.cleanupError;
    }
    return bySignal;
}

TreatmentResult EndFreeze(const TreatmentContext& context, const FreezeRecord& freeze, int pidfd) {
    if (freeze.frozenGroup) {
        const auto& [group, previous, previousWeight] = *freeze.frozenGroup;
        return {RestoreValue(context, group, kFreezeFile, previous), MeansText(kFreezeFile, group)};
    }
    if (freeze.wasStopped) {
        return {.error = {}, .note = "it was stopped before and stays so"};
    }
    const std::error_code error = pidfd == kNoPidfd ? ErrorOf(ESRCH) : SendSignal(pidfd, SIGCONT);
    return {Is(error, ESRCH) ? std::error_code() : error, "SIGCONT"};
}

}  // namespace

TreatmentResult Freeze(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    if (context.isDryRun) {
        record.freeze.emplace();
        return {};
    }
    return FreezeByAnyMeans(context, record, pidfd);
}

TreatmentResult Thaw(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    if (!record.freeze) {
        return {};
    }
    if (context.isDryRun) {
        record.freeze.reset();
        return {};
    }
    TreatmentResult result = EndFreeze(context, *record.freeze, pidfd);
    if (!result.error) {
        record.freeze.reset();
    }
    result.cleanupError = CleanUp(context, record);
    return result;
}

}  // namespace KITE::Linux
