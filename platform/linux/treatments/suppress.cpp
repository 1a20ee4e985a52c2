#include "treatments/suppress.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "proc/pidfd.h"
#include "runtime/platform_log.h"
#include "treatments/treatment_group.h"

namespace KITE::Linux {

namespace {

const char* WeightFile(Hierarchy hierarchy) {
    return hierarchy == Hierarchy::kUnified ? "cpu.weight" : "cpu.shares";
}

bool Lives(int pidfd) {
    return pidfd != kNoPidfd && !HasExited(pidfd);
}

TreatmentResult SuppressInGroup(TreatmentContext& context, TreatmentRecord& record, int pidfd,
                                Hierarchy hierarchy) {
    const Result<TreatmentGroup> place = FindTreatmentGroup(context, record, hierarchy);
    if (!place) {
        return {place.Code()};
    }
    TreatmentRecord planned = record;
    planned.suppression.emplace().idleGroup = BeforeTheChange(*place, kIdleFile, WeightFile(hierarchy));
    if (const std::error_code error = SavePlanFor(context, *place, record, std::move(planned))) {
        return {.error = error, .isUnrecorded = true};
    }
    TreatmentResult result{EnterGroup(context, *place, record.pid, pidfd, kIdleFile),
                           MeansText(kIdleFile, place->group)};
    if (result.error) {
        result.cleanupError = EndSuppression(context, record, kNoPidfd).FirstError();
    }
    return result;
}

// The threads that are not in the record yet. Threads that idle ones give birth to are idle; only those that
// were so at the first look were so before.
std::vector<ThreadPolicy> NewThreads(const std::vector<ThreadPolicy>& threads,
                                     const std::vector<ThreadPolicy>& known, bool isFirstLook) {
    std::vector<ThreadPolicy> added;
    std::ranges::copy_if(threads, std::back_inserter(added), [&](const ThreadPolicy& thread) {
        const auto isIt = [&](const ThreadPolicy& other) { return other.IsSameThread(thread); };
        return std::ranges::none_of(known, isIt) && (isFirstLook || !thread.IsIdle());
    });
    return added;
}

std::error_code MakeIdle(pid_t pid, const std::vector<ThreadPolicy>& threads) {
    std::error_code firstError;
    for (const ThreadPolicy& thread : threads) {
        const std::error_code error = SetIdlePolicy(pid, thread);
        firstError = firstError || Is(error, ESRCH) ? firstError : error;
    }
    return firstError;
}

std::error_code SuppressThreads(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    const Result<IdleFamily> family = BeginIdleFamily(record.pid);
    if (!family) {
        return family.Code();
    }
    record.suppression.emplace().family = *family;
    std::error_code error;
    for (int round = 0; round < kMostPolicyRounds && !error; ++round) {
        const std::vector<ThreadPolicy> threads = ReadThreadPolicies(record.pid);
        // If the process lives now, its pid has meant no other up to here.
        if (HasExited(pidfd) || threads.empty()) {
            return ErrorOf(HasExited(pidfd) ? ESRCH : EAGAIN);
        }
        const std::vector<ThreadPolicy> added = NewThreads(threads, record.suppression->threads, round == 0);
        if (added.empty()) {
            return {};
        }
        if (round == 0 && !added.front().IsIdle()) {
            context.suppressedByThreads.emplace(record.pid, record.startTime);
        }
        TreatmentRecord planned = record;
        std::ranges::copy(added, std::back_inserter(planned.suppression->threads));
        error = SavePlan(context, record, std::move(planned));
        if (!error) {
            error = MakeIdle(record.pid, added);
        }
    }
    return error ? error : ErrorOf(EAGAIN);
}

TreatmentResult SuppressByAnyMeans(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    std::string refusals;
    std::error_code cleanupError;
    for (const Hierarchy hierarchy : {Hierarchy::kUnified, Hierarchy::kCpuV1}) {
        TreatmentResult result = SuppressInGroup(context, record, pidfd, hierarchy);
        if (!result.error || result.isUnrecorded || record.suppression || HasExited(pidfd)) {
            return result;
        }
        cleanupError = cleanupError ? cleanupError : result.cleanupError;
        refusals += (hierarchy == Hierarchy::kUnified ? "v2: " : ", v1: ") + result.error.message();
    }
    PLATFORM_LOGI("pid %{public}d cannot be suppressed by a control group (%{public}s); its threads are",
                  record.pid, refusals.c_str());
    TreatmentResult result{SuppressThreads(context, record, pidfd),
                           "SCHED_IDLE on every thread (weaker: does not reach across login sessions)"};
    if (result.error) {
        result.cleanupError = EndSuppression(context, record, pidfd).FirstError();
    }
    result.cleanupError = result.cleanupError ? result.cleanupError : cleanupError;
    return result;
}

std::error_code RestoreGroup(const TreatmentContext& context, const ChangedGroup& changed) {
    const std::error_code error = RestoreValue(context, changed.group, kIdleFile, changed.previous);
    if (error || changed.previousWeight.empty() || changed.previous != "0") {
        return error;
    }
    return RestoreValue(context, changed.group, WeightFile(changed.group.hierarchy), changed.previousWeight);
}

std::error_code RestoreThreads(const SuppressionRecord& suppression, int pidfd, const ProcessKeys& except) {
    const pid_t pid = suppression.family.pid;
    const auto main = std::ranges::find(suppression.threads, pid, &ThreadPolicy::tid);
    const std::error_code error = Lives(pidfd) && !suppression.threads.empty()
                                      ? RestorePolicies(pid, suppression.threads)
                                      : std::error_code();
    std::error_code familyError;
    if (main != suppression.threads.end()) {
        const bool parentLives = Lives(pidfd);
        familyError = RestoreFamily(suppression.family, parentLives, *main, except);
        // If it ended meanwhile, its children have other parents now.
        if (parentLives && !Lives(pidfd)) {
            familyError = RestoreFamily(suppression.family, false, *main, except);
        }
    }
    return error && Lives(pidfd) ? error : familyError;
}

}  // namespace

TreatmentResult Suppress(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    if (context.isDryRun) {
        record.suppression.emplace();
        return {};
    }
    return SuppressByAnyMeans(context, record, pidfd);
}

TreatmentResult EndSuppression(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    if (!record.suppression) {
        return {};
    }
    if (context.isDryRun) {
        record.suppression.reset();
        return {};
    }
    const SuppressionRecord& suppression = *record.suppression;
    TreatmentResult result;
    if (suppression.idleGroup) {
        result = {RestoreGroup(context, *suppression.idleGroup),
                  MeansText(kIdleFile, suppression.idleGroup->group)};
    } else {
        context.suppressedByThreads.erase({record.pid, record.startTime});
        result = {RestoreThreads(suppression, pidfd, context.suppressedByThreads),
                  "the saved policy of every thread"};
    }
    if (!result.error) {
        record.suppression.reset();
    }
    result.cleanupError = CleanUp(context, record);
    return result;
}

void PauseSuppression(const TreatmentRecord& record) {
    if (record.suppression && record.suppression->idleGroup) {
        const ChangedGroup& changed = *record.suppression->idleGroup;
        static_cast<void>(WriteGroupFile(changed.group, kIdleFile, changed.previous));
    } else if (record.suppression) {
        static_cast<void>(RestorePolicies(record.pid, record.suppression->threads));
    }
}

void ResumeSuppression(const TreatmentRecord& record, int pidfd) {
    if (record.suppression && record.suppression->idleGroup) {
        static_cast<void>(WriteGroupFile(record.suppression->idleGroup->group, kIdleFile, "1"));
    } else if (record.suppression) {
        const std::vector<ThreadPolicy> threads = ReadThreadPolicies(record.pid);
        if (!HasExited(pidfd)) {  // else they may be those of another process
            static_cast<void>(MakeIdle(record.pid, threads));
        }
    }
}

}  // namespace KITE::Linux
