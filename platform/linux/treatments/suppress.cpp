#include "treatments/suppress.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "proc/pidfd.h"
#include "treatments/treatment_group.h"

namespace KITE::Linux {

namespace {

bool Lives(int pidfd) {
    return pidfd != kNoPidfd && !HasExited(pidfd);
}

TreatmentResult SuppressInGroup(TreatmentContext& context, TreatmentRecord& record, int pidfd,
                                Hierarchy hierarchy) {
    const GroupSwitch means{hierarchy, kIdleFile,
                            [](TreatmentRecord& planned) -> std::optional<ChangedGroup>& {
                                return planned.suppression.emplace().idleGroup;
                            },
                            EndSuppression};
    return TreatInGroup(context, record, means, [&](const TreatmentGroup& place) {
        return EnterGroup(context, place, record.pid, pidfd, kIdleFile);
    });
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

std::error_code MakeAllThreadsIdle(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
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
        error = context.records.Plan(record, std::move(planned));
        if (!error) {
            error = MakeIdle(record.pid, added);
        }
    }
    return error ? error : ErrorOf(EAGAIN);
}

TreatmentResult SuppressThreads(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    TreatmentResult result{MakeAllThreadsIdle(context, record, pidfd),
                           "SCHED_IDLE on every thread (weaker: does not reach across login sessions)"};
    if (result.error) {
        EndSuppression(context, record, pidfd);
    }
    return result;
}

TreatmentResult RestoreThreads(TreatmentContext& context, const TreatmentRecord& record, int pidfd) {
    const auto& [group, threads, family] = *record.suppression;
    const ProcessKeys& except = context.suppressedByThreads;
    TreatmentResult result{.error = {}, .means = "the saved policy of every thread"};
    context.suppressedByThreads.erase({record.pid, record.startTime});
    if (threads.empty()) {
        return result;
    }
    const bool parentLives = Lives(pidfd);
    if (parentLives) {
        result.error = RestorePolicies(record.pid, pidfd, threads);
    }
    std::error_code familyError = RestoreFamily(record.pid, family, parentLives, threads, except);
    // If it ended meanwhile, its children have other parents now.
    if (parentLives && !Lives(pidfd)) {
        familyError = RestoreFamily(record.pid, family, false, threads, except);
    }
    result.error = result.error && Lives(pidfd) ? result.error : familyError;
    return result;
}

}  // namespace

TreatmentResult Suppress(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    if (context.isDryRun) {
        record.suppression.emplace();
        return {};
    }
    return TryEach(record, pidfd,
                   {[&] { return SuppressInGroup(context, record, pidfd, Hierarchy::kUnified); },
                    [&] { return SuppressInGroup(context, record, pidfd, Hierarchy::kCpuV1); },
                    [&] { return SuppressThreads(context, record, pidfd); }});
}

TreatmentResult EndSuppression(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    return EndPart(context, record, record.suppression, [&](const SuppressionRecord& suppression) {
        return suppression.idleGroup ? RestoreGroup(context, *suppression.idleGroup, kIdleFile)
                                     : RestoreThreads(context, record, pidfd);
    });
}

void PauseSuppression(const TreatmentRecord& record, int pidfd) {
    if (record.suppression && record.suppression->idleGroup) {
        const ChangedGroup& changed = *record.suppression->idleGroup;
        static_cast<void>(WriteGroupFile(changed.group, kIdleFile, changed.previous));
    } else if (record.suppression) {
        static_cast<void>(RestorePolicies(record.pid, pidfd, record.suppression->threads));
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
