#include "treatments/treatments.h"

#include <algorithm>
#include <cerrno>

#include "base/text.h"
#include "proc/pidfd.h"
#include "proc/process_stat.h"
#include "runtime/event_file.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"
#include "time_service.h"
#include "treatments/never_treated.h"

namespace KITE::Linux {

namespace {

constexpr const char* kSuppress = "SUPPRESS";
constexpr const char* kSuppressEnd = "SUPPRESS_END";
constexpr const char* kFreeze = "FREEZE";
constexpr const char* kThaw = "THAW";
constexpr const char* kKill = "KILL";
constexpr const char* kRelease = "RELEASE";
constexpr const char* kEndOfAll = "the end of every treatment";
constexpr const char* kLaterTry = "a later try";
constexpr const char* kHasEnded = "it has ended";

constexpr std::chrono::milliseconds kLongestRetryPause{5000};

int64_t MillisecondsSince(Treatments::Clock::time_point moment) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Treatments::Clock::now() - moment).count();
}

int64_t NowOnTheWall() {
    return TimeServiceClient::GetInstance().GetWallTimeMs();
}

int PidfdIfThere(const ProcessHandle& handle) {
    return HasExited(handle.Pidfd()) ? -1 : handle.Pidfd();
}

}  // namespace

Treatments& Treatments::Instance() {
    static Treatments table({.cgroups = Cgroups::OfThisMachine(),
                             .stateDirectory = RunDirectory(),
                             .isDryRun = GetSettings().isDryRun});
    return table;
}

Treatments::Treatments(Options options)
    : steps_(std::move(options.cgroups), std::move(options.stateDirectory), options.isDryRun),
      killPatience_(options.killPatience),
      handles_(ReportedProcesses::UsualCapacity()),
      watcher_([this](pid_t pid) { OnExited(pid); }, [this] { OnTimeUp(); }) {}

Treatments::~Treatments() {
    watcher_.Stop();
}

int32_t Treatments::Announce(const Result& result) const {
    const char* dryRun = steps_.IsDryRun() ? "dry run: " : "";
    const std::string name = Printable(result.name);
    if (result.step.error == 0) {
        PLATFORM_LOGI(
            "%{public}s%{public}s of pid %{public}d (%{public}s) done, by %{public}s%{public}s%{public}s",
            dryRun, result.event, result.pid, name.c_str(), result.step.form.c_str(),
            result.reason.empty() ? "" : ": ", result.reason.c_str());
    } else {
        PLATFORM_LOGE(
            "%{public}s%{public}s of pid %{public}d (%{public}s) failed: "
            "%{public}s%{public}s%{public}s%{public}s%{public}s",
            dryRun, result.event, result.pid, name.c_str(), ErrorOf(result.step.error).message().c_str(),
            result.reason.empty() ? "" : ", ", result.reason.c_str(), result.step.form.empty() ? "" : ", by ",
            result.step.form.c_str());
    }
    if (result.step.untidy != 0) {
        PLATFORM_LOGW("its record or group cannot be tidied up yet: %{public}s",
                      ErrorOf(result.step.untidy).message().c_str());
    }
    Record(result);
    return result.step.error;
}

void Treatments::Record(const Result& result) {
    std::vector<EventItem> items{{"PID", result.pid},
                                 {"PROCESS_NAME", result.name},
                                 {"FORM", result.step.form},
                                 {"REASON", result.reason},
                                 {"RESULT", result.step.error}};
    if (result.by) {
        items.push_back({"BY_UID", *result.by});
    }
    RecordEvent(result.event, items);
}

void Treatments::RecordEnd(const TreatmentRecord& record, const char* reason) {
    Record({kRelease, record.pid, record.processName, {0, kEndOfAll}, reason});
}

bool Treatments::Remember(pid_t pid, int64_t startTime, const std::string& name, BrokenQuota brokenQuota) {
    const ProcessHandlePtr handle = handles_.Remember(pid, startTime, name, std::move(brokenQuota));
    const int error = handle ? watcher_.Watch(handle->Pidfd(), pid) : 0;
    if (error != 0) {
        PLATFORM_LOGE("pid %{public}d cannot be watched: %{public}s", pid, ErrorOf(error).message().c_str());
    }
    return handle && error == 0;
}

Treatments::Admission Treatments::Admit(pid_t pid, const std::string& name) const {
    if (pid < 1) {
        return {nullptr, EINVAL, "that is no process id"};
    }
    if (std::string reason = WhyNeverTreated(pid); !reason.empty()) {
        return {nullptr, EPERM, std::move(reason)};
    }
    ProcessHandlePtr handle = handles_.Find(pid);
    std::string difference = handle ? handle->Difference(name) : "no report of it has arrived";
    if (!difference.empty()) {
        return {nullptr, ESRCH, std::move(difference)};
    }
    return {std::move(handle), 0, {}};
}

Treatments::Treated& Treatments::EntryOf(const ProcessHandlePtr& handle) {
    const auto [entry, isNew] = treated_.try_emplace({handle->Pid(), handle->StartTime()});
    Treated& treated = entry->second;
    if (isNew) {
        treated.handle = handle;
        treated.record = steps_.NewRecord(handle->Pid(), handle->StartTime(), handle->Name());
    }
    return treated;
}

Treatments::TreatedMap::iterator Treatments::FindTreated(pid_t pid, const std::string& name) {
    return std::ranges::find_if(treated_, [&](const TreatedMap::value_type& entry) {
        const Treated& treated = entry.second;
        return entry.first.first == pid && treated.names.contains(name) &&
               !HasExited(treated.handle->Pidfd());
    });
}

int Treatments::Undo(Treated& treated, bool all) const {
    const int pidfd = PidfdIfThere(*treated.handle);
    if (all || pidfd < 0) {
        return steps_.UndoAll(treated.record, pidfd);
    }
    int error = treated.isFrozen ? 0 : steps_.Thaw(treated.record, pidfd).Unfinished();
    if (error == 0 && treated.suppressions == 0) {
        error = steps_.EndSuppression(treated.record, pidfd).Unfinished();
    }
    return error != 0 ? error : steps_.Tidy(treated.record);
}

void Treatments::Conclude(TreatedMap::iterator entry, int error) {
    Treated& treated = entry->second;
    if (error == 0 && treated.record.IsEmpty()) {
        treated_.erase(entry);
    } else if (error != 0) {
        treated.retryAt = Clock::now() + treated.retryPause;
        treated.retryPause = std::min(treated.retryPause * 2, kLongestRetryPause);
    }
    // Without an error what an earlier step still owes stays due.
    RearmTimer();
}

void Treatments::RearmTimer() {
    std::optional<Clock::time_point> next;
    const auto consider = [&](std::optional<Clock::time_point> moment) {
        next = moment && (!next || *moment < *next) ? moment : next;
    };
    for (const auto& [key, treated] : treated_) {
        consider(treated.thawAt);
        consider(treated.retryAt);
    }
    for (const auto& [key, kill] : kills_) {
        consider(kill.isOverdue ? std::nullopt : std::optional(kill.since + killPatience_));
    }
    watcher_.WakeAt(next);
}

Treatments::Result Treatments::BeginSuppression(const ProcessHandlePtr& handle, const std::string& name) {
    const pid_t pid = handle->Pid();
    if (const int error = watcher_.Watch(handle->Pidfd(), pid); error != 0) {
        return {kSuppress, pid, name, {error, {}}, "its end cannot be watched"};
    }
    Treated& treated = EntryOf(handle);
    if (treated.suppressions == 0) {
        // Half of an earlier one may be left, which is no suppression.
        if (const int error = steps_.EndSuppression(treated.record, handle->Pidfd()).Unfinished();
            error != 0) {
            return {kSuppress, pid, name, {error, {}}, "an earlier one could not be ended yet"};
        }
    }
    Step step{0, "the suppression in force"};
    if (treated.suppressions == 0) {
        step = steps_.Suppress(treated.record, handle->Pidfd());
        treated.brokenQuota = handles_.LastBrokenQuota(pid);
        treated.suppressedSince = NowOnTheWall();
    }
    if (step.error == 0) {
        ++treated.suppressions;
        treated.names.insert(name);
    }
    Conclude(treated_.find({pid, handle->StartTime()}), step.untidy);
    return {kSuppress, pid, name, step, {}};
}

int32_t Treatments::Suppress(pid_t pid, const std::string& name) {
    const Admission admission = Admit(pid, name);
    if (admission.error != 0) {
        return Announce({kSuppress, pid, name, {admission.error, {}}, admission.reason});
    }
    std::unique_lock lock(mutex_);
    const Result result = BeginSuppression(admission.handle, name);
    lock.unlock();
    return Announce(result);
}

int32_t Treatments::EndSuppression(pid_t pid, const std::string& name) {
    std::unique_lock lock(mutex_);
    // Found by the treatment, not by what the process is now: it may have executed another program since.
    const auto entry = FindTreated(pid, name);
    if (entry == treated_.end() || entry->second.suppressions == 0) {
        lock.unlock();
        PLATFORM_LOGI("pid %{public}d (%{public}s) is not suppressed (any more)", pid,
                      Printable(name).c_str());
        return ESRCH;
    }
    Treated& treated = entry->second;
    Step step{0, "nothing: other suppressions go on"};
    if (--treated.suppressions == 0) {
        step = steps_.EndSuppression(treated.record, PidfdIfThere(*treated.handle));
    }
    Conclude(entry, step.Unfinished());
    lock.unlock();
    return Announce({kSuppressEnd, pid, name, step, {}});
}

Treatments::Result Treatments::BeginFreeze(const ProcessHandlePtr& handle, const std::string& name,
                                           std::optional<std::chrono::milliseconds> time) {
    const pid_t pid = handle->Pid();
    if (const int error = watcher_.Watch(handle->Pidfd(), pid); error != 0) {
        return {kFreeze, pid, name, {error, {}}, "its end cannot be watched"};
    }
    Treated& treated = EntryOf(handle);
    // Also one that should have ended: a process is frozen until its thaw is done.
    Step step{0, "the freeze in force"};
    if (!treated.record.freeze) {
        step = steps_.Freeze(treated.record, handle->Pidfd());
        treated.brokenQuota = handles_.LastBrokenQuota(pid);
        treated.frozenSince = NowOnTheWall();
    }
    if (step.error == 0) {
        const std::optional<Clock::time_point> end =
            time ? std::optional(Clock::now() + *time) : std::nullopt;
        const bool isEndless = !end || (treated.isFrozen && !treated.thawAt);
        treated.thawAt =
            isEndless ? std::nullopt : std::optional(std::max(*end, treated.thawAt.value_or(*end)));
        treated.isFrozen = true;
        treated.names.insert(name);
    }
    Conclude(treated_.find({pid, handle->StartTime()}), step.untidy);
    return {kFreeze, pid, name, step, {}};
}

int32_t Treatments::Freeze(pid_t pid, const std::string& name,
                           std::optional<std::chrono::milliseconds> time) {
    const Admission admission = Admit(pid, name);
    if (admission.error != 0) {
        return Announce({kFreeze, pid, name, {admission.error, {}}, admission.reason});
    }
    std::unique_lock lock(mutex_);
    const Result result = BeginFreeze(admission.handle, name, time);
    lock.unlock();
    return Announce(result);
}

int32_t Treatments::Thaw(pid_t pid, const std::string& name) {
    std::unique_lock lock(mutex_);
    const auto entry = FindTreated(pid, name);
    if (entry == treated_.end() || !entry->second.isFrozen) {
        lock.unlock();
        PLATFORM_LOGI("pid %{public}d (%{public}s) is not frozen (any more)", pid, Printable(name).c_str());
        return ESRCH;
    }
    Treated& treated = entry->second;
    treated.isFrozen = false;
    treated.thawAt.reset();
    const Step step = steps_.Thaw(treated.record, PidfdIfThere(*treated.handle));
    Conclude(entry, step.Unfinished());
    lock.unlock();
    return Announce({kThaw, pid, name, step, {}});
}

int32_t Treatments::Kill(pid_t pid, const std::string& name, const std::string& reason) {
    const Admission admission = Admit(pid, name);
    if (admission.error != 0) {
        return Announce({kKill, pid, name, {admission.error, {}}, admission.reason});
    }
    // The event of the kill stands before that of its end, which takes the lock too.
    const std::lock_guard lock(mutex_);
    const int32_t error =
        Announce({kKill, pid, name, steps_.Kill(admission.handle->Pidfd()), Printable(reason)});
    if (error == 0) {
        LiftForKill(*admission.handle);
        AwaitDeath(admission.handle);
    }
    return error;
}

void Treatments::AwaitDeath(const ProcessHandlePtr& handle) {
    if (steps_.IsDryRun()) {
        return;
    }
    kills_.try_emplace({handle->Pid(), handle->StartTime()}, PendingKill{handle, Clock::now()});
    // It may have ended before it was in the list.
    CheckKills(Clock::now());
    RearmTimer();
}

int Treatments::EndAll(TreatedMap::iterator entry) {
    Treated& treated = entry->second;
    treated.suppressions = 0;
    treated.isFrozen = false;
    treated.thawAt.reset();
    const int error = Undo(treated, true);
    Conclude(entry, error);
    return error;
}

void Treatments::LiftForKill(const ProcessHandle& handle) {
    // A process must run to end, which a suppressed one does late on a busy machine. A frozen one ends as it
    // is.
    const auto entry = treated_.find({handle.Pid(), handle.StartTime()});
    if (entry != treated_.end() && steps_.IsDryRun()) {
        // What would be gone by now.
        EndAll(entry);
    } else if (entry != treated_.end()) {
        entry->second.suppressions = 0;
        Conclude(entry, steps_.EndSuppression(entry->second.record, PidfdIfThere(handle)).Unfinished());
    }
}

void Treatments::CheckKills(Clock::time_point now) {
    for (auto entry = kills_.begin(); entry != kills_.end();) {
        PendingKill& kill = entry->second;
        const ProcessHandle& handle = *kill.handle;
        if (HasExited(handle.Pidfd())) {
            PLATFORM_LOGI("killed pid %{public}d (%{public}s) is gone after %{public}ld ms", handle.Pid(),
                          Printable(handle.Name()).c_str(), MillisecondsSince(kill.since));
            entry = kills_.erase(entry);
            continue;
        }
        if (!kill.isOverdue && now >= kill.since + killPatience_) {
            kill.isOverdue = true;
            PLATFORM_LOGW("killed pid %{public}d (%{public}s) is still pending after %{public}ld ms",
                          handle.Pid(), Printable(handle.Name()).c_str(), MillisecondsSince(kill.since));
        }
        ++entry;
    }
}

void Treatments::UndoEnded(pid_t pid, std::vector<TreatmentRecord>& ended) {
    auto entry = treated_.lower_bound({pid, 0});
    while (entry != treated_.end() && entry->first.first == pid) {
        const auto next = std::next(entry);
        if (HasExited(entry->second.handle->Pidfd())) {
            const int error = Undo(entry->second, true);
            PLATFORM_LOGI("treated pid %{public}d (%{public}s) has ended: %{public}s", pid,
                          Printable(entry->second.record.processName).c_str(),
                          error == 0 ? "nothing is left of its treatment" : ErrorOf(error).message().c_str());
            entry->second.thawAt.reset();
            if (error == 0) {
                ended.push_back(entry->second.record);
            }
            Conclude(entry, error);
        }
        entry = next;
    }
}

void Treatments::OnExited(pid_t pid) {
    handles_.DropExited(pid);
    std::vector<TreatmentRecord> ended;
    {
        const std::lock_guard lock(mutex_);
        CheckKills(Clock::now());
        UndoEnded(pid, ended);
    }
    for (const TreatmentRecord& record : ended) {
        RecordEnd(record, kHasEnded);
    }
}

void Treatments::ThawDue(Clock::time_point now, std::vector<Result>& results) {
    for (auto entry = treated_.begin(); entry != treated_.end();) {
        const auto next = std::next(entry);
        Treated& treated = entry->second;
        if (treated.thawAt && *treated.thawAt <= now) {
            treated.isFrozen = false;
            treated.thawAt.reset();
            const Step step = steps_.Thaw(treated.record, PidfdIfThere(*treated.handle));
            results.push_back(
                {kThaw, entry->first.first, treated.record.processName, step, "its time is over"});
            Conclude(entry, step.Unfinished());
        }
        entry = next;
    }
}

void Treatments::RetryDue(Clock::time_point now, std::vector<Result>& results) {
    for (auto entry = treated_.begin(); entry != treated_.end();) {
        const auto next = std::next(entry);
        if (entry->second.retryAt && *entry->second.retryAt <= now) {
            Retry(entry, results);
        }
        entry = next;
    }
}

void Treatments::Retry(TreatedMap::iterator entry, std::vector<Result>& results) {
    Treated& treated = entry->second;
    const TreatmentRecord& record = treated.record;
    const bool hasEnded = HasExited(treated.handle->Pidfd());
    const bool wasFrozen = record.freeze && !treated.isFrozen;
    const bool wasSuppressed = record.suppression && treated.suppressions == 0;
    const int error = Undo(treated, false);
    const auto tell = [&](const char* event, const char* form, const char* reason) {
        results.push_back({event, record.pid, record.processName, {0, form}, reason});
    };
    if (hasEnded && error == 0) {
        tell(kRelease, kEndOfAll, kHasEnded);
    } else if (!hasEnded && wasFrozen && !record.freeze) {
        tell(kThaw, kLaterTry, "");
    }
    if (!hasEnded && wasSuppressed && !record.suppression) {
        tell(kSuppressEnd, kLaterTry, "");
    }
    if (error == 0) {
        PLATFORM_LOGI("pid %{public}d (%{public}s): nothing is left that could not be undone before",
                      record.pid, Printable(record.processName).c_str());
        treated.retryAt.reset();
        treated.retryPause = kFirstRetryPause;
    }
    Conclude(entry, error);
}

void Treatments::OnTimeUp() {
    std::vector<Result> results;
    {
        const std::lock_guard lock(mutex_);
        const Clock::time_point now = Clock::now();
        ThawDue(now, results);
        RetryDue(now, results);
        CheckKills(now);
        RearmTimer();
    }
    for (const Result& result : results) {
        Announce(result);
    }
}

std::vector<TreatedProcess> Treatments::List() {
    std::vector<TreatedProcess> list;
    const std::lock_guard lock(mutex_);
    for (const auto& [key, treated] : treated_) {
        TreatedProcess& process = list.emplace_back();
        process.pid = key.first;
        process.name = treated.record.processName;
        process.suppressedSince = treated.record.suppression ? treated.suppressedSince : 0;
        process.frozenSince = treated.record.freeze ? treated.frozenSince : 0;
        process.frozenUntil = treated.thawAt ? NowOnTheWall() - MillisecondsSince(*treated.thawAt) : 0;
        process.brokenQuota = treated.brokenQuota;
    }
    return list;
}

int32_t Treatments::Release(pid_t pid, uid_t releasedBy) {
    std::unique_lock lock(mutex_);
    const auto entry = std::ranges::find_if(treated_, [pid](const TreatedMap::value_type& candidate) {
        return candidate.first.first == pid && !HasExited(candidate.second.handle->Pidfd());
    });
    if (entry == treated_.end()) {
        lock.unlock();
        const bool isThere = ReadProcessStat(pid).Code() != ErrorOf(ESRCH);
        PLATFORM_LOGI("uid %{public}u asks to release pid %{public}d, which is not %{public}s", releasedBy,
                      pid, isThere ? "treated" : "there");
        return isThere ? kNotTreated : ESRCH;
    }
    const std::string name = entry->second.record.processName;
    const int error = EndAll(entry);
    lock.unlock();
    return Announce({kRelease, pid, name, {error, kEndOfAll}, "asked for", releasedBy});
}

void Treatments::ReleaseAll() {
    watcher_.Stop();
    const std::lock_guard lock(mutex_);
    // A group that lies below another's is removed first, whichever comes first here.
    for (size_t before = treated_.size() + 1; !treated_.empty() && treated_.size() < before;) {
        before = treated_.size();
        for (auto entry = treated_.begin(); entry != treated_.end();) {
            const bool isDone = Undo(entry->second, true) == 0;
            if (isDone) {
                RecordEnd(entry->second.record, "the host stops");
            }
            entry = isDone ? treated_.erase(entry) : std::next(entry);
        }
    }
    for (auto& [key, treated] : treated_) {
        PLATFORM_LOGE("pid %{public}d (%{public}s) could not be released; its record stays", key.first,
                      Printable(treated.record.processName).c_str());
    }
    CheckKills(Clock::time_point::max());
    kills_.clear();
}

int Treatments::ReleaseOne(TreatmentRecord& record) {
    const std::string bootId = CurrentBootId();
    if (bootId.empty()) {
        return EIO;
    }
    if (record.bootId != bootId) {
        return steps_.Records().Remove(record);
    }
    const Linux::Result<UniqueFd> pidfd = OpenProcess(record.pid, record.startTime);
    const int failure = pidfd.Code().value();
    if (failure != 0 && failure != ESRCH && failure != EINVAL) {
        return failure;
    }
    const int error = steps_.UndoAll(record, pidfd ? pidfd->Get() : -1);
    if (error == 0) {
        PLATFORM_LOGI("pid %{public}d (%{public}s) was left treated and is released%{public}s", record.pid,
                      Printable(record.processName).c_str(), pidfd ? "" : "; it has ended");
        RecordEnd(record, "left by a host that was killed");
    }
    return error;
}

bool Treatments::ReadLeft(std::vector<TreatmentRecord>& records) {
    RecordStore::Left left = steps_.Records().ReadAll(steps_.Groups());
    if (left.error != 0) {
        PLATFORM_LOGE("records of treatments cannot be read: %{public}s",
                      ErrorOf(left.error).message().c_str());
    }
    for (const auto& [name, error] : left.unclear) {
        PLATFORM_LOGE("what %{public}s tells of a treatment cannot be undone: %{public}s; it stays",
                      Printable(name).c_str(), ErrorOf(error).message().c_str());
    }
    for (const std::string& name : left.malformed) {
        const int error = steps_.Records().SetAside(name);
        PLATFORM_LOGE("%{public}s is no record of a treatment, it is set aside: %{public}s",
                      Printable(name).c_str(), ErrorOf(error).message().c_str());
    }
    records = std::move(left.records);
    return left.error == 0 && left.unclear.empty() && left.malformed.empty();
}

bool Treatments::ReleaseLeft() {
    const std::lock_guard lock(mutex_);
    std::vector<TreatmentRecord> records;
    const bool areAllClear = ReadLeft(records);
    std::erase_if(records, [this](const TreatmentRecord& record) {
        const bool isInOtherHands = record.IsInOtherHands();
        if (isInOtherHands) {
            PLATFORM_LOGI("pid %{public}d (%{public}s) stays treated: the host of pid %{public}d holds it",
                          record.pid, Printable(record.processName).c_str(), record.hostPid);
        }
        return isInOtherHands || treated_.contains({record.pid, record.startTime});
    });
    for (size_t before = records.size() + 1; !records.empty() && records.size() < before;) {
        before = records.size();
        for (auto record = records.begin(); record != records.end();) {
            record = ReleaseOne(*record) == 0 ? records.erase(record) : std::next(record);
        }
    }
    for (const TreatmentRecord& record : records) {
        PLATFORM_LOGE("pid %{public}d (%{public}s) was left treated and could not be released", record.pid,
                      Printable(record.processName).c_str());
    }
    return areAllClear && records.empty();
}

}  // namespace KITE::Linux
