#include "treatments/freeze.h"

#include <signal.h>

#include <cerrno>
#include <utility>

#include "proc/pidfd.h"
#include "proc/process_stat.h"
#include "treatments/suppress.h"
#include "treatments/treatment_group.h"

namespace KITE::Linux {

namespace {

constexpr const char* kFreezeFile = "cgroup.freeze";

// Only by a v2 freezer: a process in a v1 freezer does not die of SIGKILL until it is thawed.
constexpr GroupSwitch kFreezer{Hierarchy::kUnified, kFreezeFile,
                               [](TreatmentRecord& record) -> std::optional<ChangedGroup>& {
                                   return record.freeze.emplace().frozenGroup;
                               },
                               Thaw};

TreatmentResult FreezeInGroup(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    return TreatInGroup(context, record, kFreezer, [&](const TreatmentGroup& place) {
        PauseSuppression(record, pidfd);
        std::error_code error = EnterGroup(context, place, record.pid, pidfd, kFreezeFile);
        error = error ? error : AwaitFrozen(place.group, pidfd);
        ResumeSuppression(record, pidfd);
        return error;
    });
}

TreatmentResult StopBySignal(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    const Result<ProcessStat> stat = ReadProcessStat(record.pid);
    if (!stat || HasExited(pidfd)) {
        return {ErrorOf(ESRCH), "SIGSTOP"};
    }
    TreatmentRecord planned = record;
    planned.freeze = FreezeRecord{std::nullopt, stat->IsStopped()};
    if (const std::error_code error = context.records.Plan(record, std::move(planned))) {
        return {error};
    }
    if (stat->IsStopped()) {
        return {.error = {}, .note = "it was stopped already"};
    }
    TreatmentResult result{SendSignal(pidfd, SIGSTOP), "SIGSTOP"};
    if (result.error) {
        record.freeze.reset();
        CleanUp(context, record);
    }
    return result;
}

TreatmentResult EndFreeze(const TreatmentContext& context, const FreezeRecord& freeze, int pidfd) {
    if (freeze.frozenGroup) {
        return RestoreGroup(context, *freeze.frozenGroup, kFreezeFile);
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
    return TryEach(record, pidfd,
                   {[&] { return FreezeInGroup(context, record, pidfd); },
                    [&] { return StopBySignal(context, record, pidfd); }});
}

TreatmentResult Thaw(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    return EndPart(context, record, record.freeze,
                   [&](const FreezeRecord& freeze) { return EndFreeze(context, freeze, pidfd); });
}

}  // namespace KITE::Linux
