#include "treatments/treatment_steps.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "proc/pidfd.h"
#include "proc/process_stat.h"
#include "runtime/platform_log.h"
#include "treatments/reported_processes.h"

namespace KITE::Linux {

namespace {

constexpr const char* kIdleFile = "cpu.idle";
constexpr const char* kFreezeFile = "cgroup.freeze";

const Step kNothingDone{0, "nothing"};

int FirstError(int first, int second) {
    return first != 0 ? first : second;
}

// What cannot be undone after our death is not done, by whatever means.
Step Unrecorded(int error) {
    Step step;
    step.error = error;
    step.isFinal = true;
    return step;
}

const char* WeightFile(Hierarchy hierarchy) {
    return hierarchy == Hierarchy::kUnified ? "cpu.weight" : "cpu.shares";
}

std::string FormOf(const char* file, const Group& group) {
    const char* version = group.hierarchy == Hierarchy::kUnified ? "v2" : "v1";
    return std::string(file) + " of cgroup " + version + " " + group.path;
}

bool IsIn(const std::optional<ChangedGroup>& changed, const Group& group) {
    return changed && changed->group == group;
}

bool IsUsed(const TreatmentRecord& record, const Group& group) {
    return (record.suppression && IsIn(record.suppression->idleGroup, group)) ||
           (record.freeze && IsIn(record.freeze->frozenGroup, group));
}

bool IsKnown(const std::vector<ThreadPolicy>& known, const ThreadPolicy& thread) {
    return std::ranges::any_of(known, [&](const ThreadPolicy& other) { return other.IsSameThread(thread); });
}

bool IsThere(int pidfd) {
    return pidfd >= 0 && !HasExited(pidfd);
}

int RestoreThreads(const Suppression& suppression, int pidfd, const ProcessKeys& otherwiseIdle) {
    const pid_t pid = suppression.family.pid;
    if (suppression.threads.empty()) {
        return 0;
    }
    int error = IsThere(pidfd) ? RestorePolicies(pid, suppression.threads) : 0;
    const auto main = std::ranges::find(suppression.threads, pid, &ThreadPolicy::tid);
    if (main == suppression.threads.end()) {
        return IsThere(pidfd) ? error : 0;
    }
    int familyError = RestoreFamily(suppression.family, IsThere(pidfd), *main, otherwiseIdle);
    if (!IsThere(pidfd)) {
        // Also when it ended during the above, which left its children to others.
        error = 0;
        familyError = RestoreFamily(suppression.family, false, *main, otherwiseIdle);
    }
    return FirstError(error, familyError);
}

// Lifts a suppression while this object lives. A process must run for a moment to be frozen, and a suppressed
// one on a busy machine would not get that moment within the limit.
class SuppressionPause {
  public:
    SuppressionPause(const TreatmentRecord& record, int pidfd) : record_(record), pidfd_(pidfd) {
        Apply(false);
    }
    ~SuppressionPause() { Apply(true); }
    SuppressionPause(const SuppressionPause&) = delete;
    SuppressionPause& operator=(const SuppressionPause&) = delete;

  private:
    void Apply(bool isIdle) const {
        const std::optional<Suppression>& suppression = record_.suppression;
        if (suppression && suppression->idleGroup) {
            const ChangedGroup& changed = *suppression->idleGroup;
            static_cast<void>(WriteGroupFile(changed.group, kIdleFile, isIdle ? "1" : changed.previous));
        } else if (suppression && isIdle) {
            const std::vector<ThreadPolicy> threads = ReadThreadPolicies(record_.pid);
            if (HasExited(pidfd_)) {
                return;  // they may be another process's
            }
            for (const ThreadPolicy& thread : threads) {
                static_cast<void>(SetIdlePolicy(record_.pid, thread));
            }
        } else if (suppression) {
            static_cast<void>(RestorePolicies(record_.pid, suppression->threads));
        }
    }

    const TreatmentRecord& record_;
    const int pidfd_;
};

}  // namespace

TreatmentSteps::TreatmentSteps(Cgroups cgroups, std::string stateDirectory, bool isDryRun)
    : cgroups_(std::move(cgroups)),
      records_(std::move(stateDirectory)),
      isDryRun_(isDryRun),
      bootId_(CurrentBootId()),
      hostStartTime_(ReadProcessStat(getpid()).ValueOr({}).startTime) {}

TreatmentRecord TreatmentSteps::NewRecord(pid_t pid, int64_t startTime, const std::string& name) const {
    TreatmentRecord record;
    record.bootId = bootId_;
    record.hostPid = getpid();
    record.hostStartTime = hostStartTime_;
    record.pid = pid;
    record.startTime = startTime;
    record.processName = name;
    return record;
}

TreatmentSteps::Spot TreatmentSteps::FindSpot(const TreatmentRecord& record, Hierarchy hierarchy) const {
    const std::optional<Group> present = cgroups_.GroupOf(record.pid, hierarchy);
    if (!present || !cgroups_.IsReachable(hierarchy)) {
        return {{}, false, ENOENT};
    }
    const bool isMadeForIt = std::ranges::any_of(
        record.placements, [&](const Placement& placement) { return placement.group == *present; });
    if (isMadeForIt || (cgroups_.IsBelowRoot(*present) && IsAloneIn(*present, record.pid))) {
        return {*present, false, 0};
    }
    if (cgroups_.IsOwnedByManager(*present)) {
        return {{}, false, EBUSY};
    }
    return {record.GroupBelow(*present), true, 0};
}

int TreatmentSteps::EnableCpuFor(const Group& group) const {
    const Group parent = ParentOf(group);
    if (group.hierarchy != Hierarchy::kUnified || ReadGroupFile(group, kIdleFile)) {
        return 0;
    }
    if (cgroups_.IsOwnedByManager(parent)) {
        return EBUSY;
    }
    // Stays enabled: whether somebody has come to rely on it cannot be known later.
    const int error = WriteGroupFile(parent, "cgroup.subtree_control", "+cpu");
    if (error == 0) {
        PLATFORM_LOGI("cpu controller enabled below %{public}s; it stays so", parent.path.c_str());
    }
    return error;
}

int TreatmentSteps::Enter(const Spot& spot, const TreatmentRecord& record, int pidfd,
                          std::string_view file) const {
    int error = spot.isNew ? CreateGroup(spot.group) : 0;
    if (error == 0 && file == kIdleFile) {
        error = EnableCpuFor(spot.group);
    }
    if (error == 0) {
        error = WriteGroupFile(spot.group, file, "1");
    }
    error = error == 0 && spot.isNew ? MoveProcess(record.pid, spot.group) : error;
    // Moved by its number, which means no other process as long as this one is there.
    return HasExited(pidfd) ? ESRCH : error;
}

int TreatmentSteps::Save(const TreatmentRecord& record) const {
    const int error = records_.Write(record);
    if (error != 0) {
        PLATFORM_LOGE("no record of pid %{public}d can be written, nothing is done to it: %{public}s",
                      record.pid, ErrorOf(error).message().c_str());
    }
    return error;
}

int TreatmentSteps::Plan(TreatmentRecord& record, TreatmentRecord planned) const {
    const int error = Save(planned);
    if (error == 0) {
        record = std::move(planned);
    }
    return error;
}

void TreatmentSteps::TidyIfEmpty(TreatmentRecord& record, const Step& step) const {
    const int error = record.IsEmpty() && !step.isFinal ? Tidy(record) : 0;
    if (error != 0) {
        PLATFORM_LOGE("the empty record of pid %{public}d cannot be removed: %{public}s", record.pid,
                      ErrorOf(error).message().c_str());
    }
}

Step TreatmentSteps::SuppressInGroup(TreatmentRecord& record, int pidfd, Hierarchy hierarchy) const {
    const Spot spot = FindSpot(record, hierarchy);
    if (spot.error != 0) {
        return {spot.error, {}};
    }
    TreatmentRecord planned = record;
    ChangedGroup& changed =
        planned.suppression.emplace().idleGroup.emplace(ChangedGroup{spot.group, "0", {}});
    if (spot.isNew) {
        planned.placements.push_back({ParentOf(spot.group), spot.group});
    } else {
        changed.previous = ReadGroupFile(spot.group, kIdleFile).value_or("0");
        changed.previousWeight = ReadGroupFile(spot.group, WeightFile(hierarchy)).value_or("");
    }
    if (const int error = Plan(record, std::move(planned)); error != 0) {
        return Unrecorded(error);
    }
    const int error = Enter(spot, record, pidfd, kIdleFile);
    const int untidy = error != 0 ? EndSuppression(record, -1).Unfinished() : 0;
    return {error, FormOf(kIdleFile, spot.group), untidy};
}

Step TreatmentSteps::SuppressThreads(TreatmentRecord& record, int pidfd) const {
    constexpr int kMostRounds = 50;
    constexpr const char* kForm = "SCHED_IDLE on every thread (weaker: does not reach across login sessions)";
    Suppression& suppression = record.suppression.emplace();
    int error = BeginIdleFamily(record.pid, suppression.family);
    for (int round = 0; round < kMostRounds && error == 0; ++round) {
        // Threads that idle ones give birth to are idle; those of the first look were so before.
        std::vector<ThreadPolicy> found = ReadThreadPolicies(record.pid);
        const bool isListed = !found.empty();
        std::erase_if(found, [&](const ThreadPolicy& thread) {
            return IsKnown(suppression.threads, thread) || (round > 0 && thread.IsIdle());
        });
        // The number has meant this process up to here if the process is there now.
        if (HasExited(pidfd) || !isListed) {
            return {HasExited(pidfd) ? ESRCH : EAGAIN, kForm};
        }
        if (found.empty()) {
            return {0, kForm};
        }
        if (round == 0 && !found.front().IsIdle()) {
            madeIdle_.emplace(record.pid, record.startTime);
        }
        suppression.threads.insert(suppression.threads.end(), found.begin(), found.end());
        error = Save(record);
        for (const ThreadPolicy& thread : found) {
            const int result = error == 0 ? SetIdlePolicy(record.pid, thread) : error;
            error = result == ESRCH ? error : FirstError(error, result);
        }
    }
    return {FirstError(error, EAGAIN), kForm};
}

Step TreatmentSteps::Suppress(TreatmentRecord& record, int pidfd) const {
    if (isDryRun_) {
        record.suppression.emplace();
        return kNothingDone;
    }
    Step step = SuppressInAnyForm(record, pidfd);
    TidyIfEmpty(record, step);
    return step;
}

Step TreatmentSteps::SuppressInAnyForm(TreatmentRecord& record, int pidfd) const {
    std::string refusals;
    int untidy = 0;
    for (const Hierarchy hierarchy : {Hierarchy::kUnified, Hierarchy::kCpuV1}) {
        Step step = SuppressInGroup(record, pidfd, hierarchy);
        if (step.error == 0 || step.isFinal || record.suppression || HasExited(pidfd)) {
            return step;
        }
        untidy = FirstError(untidy, step.untidy);
        refusals += (hierarchy == Hierarchy::kUnified ? "v2: " : ", v1: ") + ErrorOf(step.error).message();
    }
    PLATFORM_LOGI("no cpu.idle group for pid %{public}d (%{public}s)", record.pid, refusals.c_str());
    Step step = SuppressThreads(record, pidfd);
    if (step.error != 0) {
        step.untidy = EndSuppression(record, pidfd).Unfinished();
    }
    step.untidy = FirstError(step.untidy, untidy);
    return step;
}

// A group that has gone needs nothing restored.
int TreatmentSteps::RestoreValue(const Group& group, const char* file, const std::string& value) const {
    const int error = WriteGroupFile(group, file, value);
    const bool isMissing = error == ENOENT || error == ENODEV;
    return isMissing && cgroups_.IsReachable(group.hierarchy) ? 0 : error;
}

int TreatmentSteps::RestoreIdle(const ChangedGroup& changed) const {
    const int error = RestoreValue(changed.group, kIdleFile, changed.previous);
    if (error != 0 || changed.previousWeight.empty() || changed.previous != "0") {
        return error;
    }
    return RestoreValue(changed.group, WeightFile(changed.group.hierarchy), changed.previousWeight);
}

Step TreatmentSteps::EndSuppression(TreatmentRecord& record, int pidfd) const {
    if (!record.suppression) {
        return {};
    }
    if (isDryRun_) {
        record.suppression.reset();
        return kNothingDone;
    }
    const Suppression& suppression = *record.suppression;
    Step step;
    if (suppression.idleGroup) {
        step = {RestoreIdle(*suppression.idleGroup), FormOf(kIdleFile, suppression.idleGroup->group)};
    } else {
        madeIdle_.erase({record.pid, record.startTime});
        step = {RestoreThreads(suppression, pidfd, madeIdle_), "saved policy of every thread"};
    }
    if (step.error == 0) {
        record.suppression.reset();
    }
    step.untidy = Tidy(record);
    return step;
}

Step TreatmentSteps::FreezeInGroup(TreatmentRecord& record, int pidfd) const {
    const Spot spot = FindSpot(record, Hierarchy::kUnified);
    if (spot.error != 0) {
        return {spot.error, {}};
    }
    TreatmentRecord planned = record;
    ChangedGroup& changed = planned.freeze.emplace().frozenGroup.emplace(ChangedGroup{spot.group, "0", {}});
    if (spot.isNew) {
        planned.placements.push_back({ParentOf(spot.group), spot.group});
    } else {
        changed.previous = ReadGroupFile(spot.group, kFreezeFile).value_or("0");
    }
    if (const int error = Plan(record, std::move(planned)); error != 0) {
        return Unrecorded(error);
    }
    int error = 0;
    {
        const SuppressionPause pause(record, pidfd);
        error = Enter(spot, record, pidfd, kFreezeFile);
        error = error != 0 ? error : AwaitFrozen(spot.group, pidfd, kFreezerLimit);
    }
    const int untidy = error != 0 ? Thaw(record, -1).Unfinished() : 0;
    return {error, FormOf(kFreezeFile, spot.group), untidy};
}

Step TreatmentSteps::StopBySignal(TreatmentRecord& record, int pidfd) const {
    const Result<ProcessStat> stat = ReadProcessStat(record.pid);
    if (!stat || HasExited(pidfd)) {
        return {ESRCH, "SIGSTOP"};
    }
    TreatmentRecord planned = record;
    planned.freeze = KITE::Linux::Freeze{std::nullopt, stat->IsStopped()};
    if (const int error = Plan(record, std::move(planned)); error != 0) {
        return Unrecorded(error);
    }
    const int error = stat->IsStopped() ? 0 : SendSignal(pidfd, SIGSTOP).value();
    int untidy = 0;
    if (error != 0) {
        record.freeze.reset();
        untidy = Tidy(record);
    }
    return {error, stat->IsStopped() ? "nothing: it was stopped already" : "SIGSTOP", untidy};
}

Step TreatmentSteps::Freeze(TreatmentRecord& record, int pidfd) const {
    if (isDryRun_) {
        record.freeze.emplace();
        return kNothingDone;
    }
    Step step = FreezeInAnyForm(record, pidfd);
    TidyIfEmpty(record, step);
    return step;
}

Step TreatmentSteps::FreezeInAnyForm(TreatmentRecord& record, int pidfd) const {
    Step step = FreezeInGroup(record, pidfd);
    const bool isFinal = step.error == 0 || step.isFinal || step.error == ESRCH || step.error == ETIMEDOUT;
    if (isFinal || record.freeze || HasExited(pidfd)) {
        return step;
    }
    PLATFORM_LOGI("no freezer for pid %{public}d: %{public}s", record.pid,
                  ErrorOf(step.error).message().c_str());
    const int untidy = step.untidy;
    step = StopBySignal(record, pidfd);
    step.untidy = FirstError(step.untidy, untidy);
    return step;
}

Step TreatmentSteps::Thaw(TreatmentRecord& record, int pidfd) const {
    if (!record.freeze) {
        return {};
    }
    if (isDryRun_) {
        record.freeze.reset();
        return kNothingDone;
    }
    const KITE::Linux::Freeze& freeze = *record.freeze;
    Step step;
    if (freeze.frozenGroup) {
        const ChangedGroup& changed = *freeze.frozenGroup;
        step = {RestoreValue(changed.group, kFreezeFile, changed.previous),
                FormOf(kFreezeFile, changed.group)};
    } else if (freeze.wasStopped) {
        step = {0, "nothing: it was stopped before"};
    } else {
        const int error = pidfd < 0 ? ESRCH : SendSignal(pidfd, SIGCONT).value();
        step = {error == ESRCH ? 0 : error, "SIGCONT"};
    }
    if (step.error == 0) {
        record.freeze.reset();
    }
    step.untidy = Tidy(record);
    return step;
}

Step TreatmentSteps::Kill(int pidfd) const {
    return isDryRun_ ? kNothingDone : Step{SendSignal(pidfd, SIGKILL).value(), "SIGKILL"};
}

int TreatmentSteps::UndoAll(TreatmentRecord& record, int pidfd) const {
    // Thawed first: leaving a frozen group would thaw it too, but piece by piece.
    const int thawError = Thaw(record, pidfd).error;
    const int endError = EndSuppression(record, pidfd).error;
    return FirstError(thawError, FirstError(endError, Tidy(record)));
}

int TreatmentSteps::RemoveUnusedGroups(TreatmentRecord& record) const {
    int firstError = 0;
    // The youngest first: a group may lie below an older one.
    for (size_t i = record.placements.size(); i-- > 0;) {
        const Placement& placement = record.placements[i];
        if (IsUsed(record, placement.group)) {
            continue;
        }
        int error = cgroups_.IsReachable(placement.group.hierarchy) ? 0 : ENODEV;
        error = error != 0 ? error : MoveAll(placement.group, placement.home);
        error = error != 0 ? error : RemoveGroup(placement.group);
        if (error == 0) {
            record.placements.erase(record.placements.begin() + static_cast<ptrdiff_t>(i));
        }
        firstError = FirstError(firstError, error);
    }
    return firstError;
}

int TreatmentSteps::Tidy(TreatmentRecord& record) const {
    if (isDryRun_) {
        return 0;
    }
    const int groupError = RemoveUnusedGroups(record);
    const int fileError = record.IsEmpty() ? records_.Remove(record) : records_.Write(record);
    return FirstError(groupError, fileError);
}

}  // namespace KITE::Linux
