#include "treatments/treatments.h"

#include <cerrno>
#include <utility>

#include "base/event_names.h"
#include "base/text.h"
#include "runtime/platform_log.h"
#include "time_service.h"
#include "treatments/freeze.h"
#include "treatments/kill.h"
#include "treatments/never_treated.h"
#include "treatments/suppress.h"
#include "treatments/undo.h"

namespace KITE::Linux {

namespace {

int64_t WallTime() {
    return TimeServiceClient::GetInstance().GetWallTimeMs();
}

// The reported process that a request means. Without a lock: it reads the process's memory, which may wait.
Result<ReportedProcessPtr> Admit(const ReportedProcesses& reported, pid_t pid, const std::string& name) {
    if (pid < 1) {
        return Failure("that is not a process id", ErrorOf(EINVAL));
    }
    if (const std::optional<std::string> reason = WhyNeverTreated(pid)) {
        return Failure(*reason, ErrorOf(EPERM));
    }
    ReportedProcessPtr process = reported.Find(pid);
    if (!process) {
        return Failure("no report of it has arrived", ErrorOf(ESRCH));
    }
    const Result<void> same = process->Verify(name);
    return same ? Result(std::move(process)) : same.Why();
}

TreatmentResult Refusal(const Failure& failure) {
    return {.error = failure.Code(), .note = failure.Words()};
}

// A process must run to end, which a suppressed one does late on a busy machine. A frozen one ends as it is.
// In a dry run it would be gone by now.
std::error_code LetDie(TreatmentContext& context, Treated& treated) {
    if (context.isDryRun) {
        treated.Cancel();
        return UndoAll(context, treated.record, treated.Pidfd());
    }
    treated.suppressions = 0;
    return EndSuppression(context, treated.record, treated.Pidfd()).FirstError();
}

}  // namespace

Treatments& Treatments::Instance() {
    static Treatments treatments(TreatmentContext::OfThisHost());
    return treatments;
}

Treatments::Treatments(TreatmentContext context, std::chrono::milliseconds killPatience)
    : context_(std::move(context)),
      watcher_(
          [this](pid_t pid) {
              reported_.DropExited(pid);
              ends_.OnEnd(pid);
          },
          [this] { ends_.OnMoment(); }),
      reported_(ReportedProcesses::UsualCapacity(), watcher_),
      ends_(context_, current_, watcher_, killPatience) {}

Treatments::~Treatments() {
    watcher_.Stop();
}

bool Treatments::Remember(pid_t pid, int64_t startTime, const std::string& name, BrokenQuota brokenQuota) {
    const Result<ReportedProcessPtr> process =
        reported_.Remember(pid, startTime, name, std::move(brokenQuota));
    if (!process) {
        PLATFORM_LOGE("reported pid %{public}d (%{public}s) cannot be treated: %{public}s", pid,
                      Printable(name).c_str(), process.Why().Text().c_str());
        return false;
    }
    const std::error_code error = watcher_.Start();
    if (error) {
        PLATFORM_LOGE("the end of pid %{public}d cannot be watched: %{public}s", pid,
                      error.message().c_str());
    }
    return !error;
}

std::error_code Treatments::Begin(std::string_view event, pid_t pid, const std::string& name,
                                  const Treat& treat) {
    const Result<ReportedProcessPtr> process = Admit(reported_, pid, name);
    if (!process) {
        return Announce({event, pid, name, Refusal(process.Why())}, context_.isDryRun);
    }
    auto lock = current_.Lock();
    TreatmentResult result{watcher_.Start(), "", "its end cannot be watched"};
    if (!result.error) {
        Treated& treated = current_.Entry(*process, context_.emptyRecord);
        result = treat(treated);
        if (!result.error) {
            treated.names.insert(name);
        }
        ends_.Settle(treated, result.cleanupError);
    }
    lock.unlock();
    return Announce({event, pid, name, std::move(result)}, context_.isDryRun);
}

std::error_code Treatments::End(std::string_view event, pid_t pid, const std::string& name,
                                const Undo& undo) {
    auto lock = current_.Lock();
    // Found by the treatment, not by what the process is now: it may have executed another program since.
    Treated* treated = current_.FindLiving(pid);
    std::optional<TreatmentResult> result;
    if (treated != nullptr && treated->names.contains(name)) {
        result = undo(*treated);
    }
    if (!result) {
        lock.unlock();
        PLATFORM_LOGI("%{public}s of pid %{public}d (%{public}s): there is nothing to be undone (any more)",
                      std::string(event).c_str(), pid, Printable(name).c_str());
        return ErrorOf(ESRCH);
    }
    ends_.Settle(*treated, result->FirstError());
    lock.unlock();
    return Announce({event, pid, name, std::move(*result)}, context_.isDryRun);
}

std::error_code Treatments::Suppress(pid_t pid, const std::string& name) {
    return Begin(EventName::kSuppress, pid, name, [&](Treated& treated) -> TreatmentResult {
        const int pidfd = treated.process->Pidfd();
        TreatmentResult result{.error = {}, .note = "it is suppressed already"};
        if (treated.suppressions == 0) {
            // Half of an earlier one may be left, which does not suppress.
            const std::error_code error = Linux::EndSuppression(context_, treated.record, pidfd).FirstError();
            if (error) {
                return {.error = error, .note = "an earlier one could not be ended yet"};
            }
            result = Linux::Suppress(context_, treated.record, pidfd);
            treated.brokenQuota = reported_.LastBrokenQuota(pid);
            treated.suppressedSince = WallTime();
        }
        treated.suppressions += result.error ? 0 : 1;
        return result;
    });
}

std::error_code Treatments::EndSuppression(pid_t pid, const std::string& name) {
    return End(EventName::kSuppressEnd, pid, name, [&](Treated& treated) -> std::optional<TreatmentResult> {
        if (treated.suppressions == 0) {
            return std::nullopt;
        }
        if (--treated.suppressions > 0) {
            return TreatmentResult{.error = {}, .note = "other suppressions of it go on"};
        }
        return Linux::EndSuppression(context_, treated.record, treated.Pidfd());
    });
}

std::error_code Treatments::Freeze(pid_t pid, const std::string& name,
                                   std::optional<std::chrono::milliseconds> time) {
    return Begin(EventName::kFreeze, pid, name, [&](Treated& treated) {
        TreatmentResult result{.error = {}, .note = "it is frozen already"};
        // Also when the freeze should have ended: the process is frozen until its thaw is done.
        if (!treated.record.freeze) {
            result = Linux::Freeze(context_, treated.record, treated.process->Pidfd());
            treated.brokenQuota = reported_.LastBrokenQuota(pid);
            treated.frozenSince = WallTime();
        }
        if (!result.error) {
            treated.AskForFreeze(time);
        }
        return result;
    });
}

std::error_code Treatments::Thaw(pid_t pid, const std::string& name) {
    return End(EventName::kThaw, pid, name, [&](Treated& treated) -> std::optional<TreatmentResult> {
        if (!treated.isFrozen) {
            return std::nullopt;
        }
        treated.isFrozen = false;
        treated.thawAt.reset();
        return Linux::Thaw(context_, treated.record, treated.Pidfd());
    });
}

std::error_code Treatments::Kill(pid_t pid, const std::string& name, const std::string& reason) {
    const Result<ReportedProcessPtr> process = Admit(reported_, pid, name);
    if (!process) {
        return Announce({EventName::kKill, pid, name, Refusal(process.Why())}, context_.isDryRun);
    }
    // Held while this is announced, so that the event stands before that of the end, which takes it too.
    const auto lock = current_.Lock();
    TreatmentResult result{.error = {}, .note = Printable(reason)};
    if (!context_.isDryRun) {
        result.error = SendKill((*process)->Pidfd());
        result.means = "SIGKILL";
    }
    const std::error_code error = Announce({EventName::kKill, pid, name, result}, context_.isDryRun);
    if (error) {
        return error;
    }
    if (Treated* treated = current_.Find((*process)->Key())) {
        ends_.Settle(*treated, LetDie(context_, *treated));
    }
    if (!context_.isDryRun) {
        ends_.ExpectDeath(*process);
    }
    return {};
}

std::vector<TreatedProcess> Treatments::List() {
    const auto lock = current_.Lock();
    return current_.List();
}

std::optional<std::error_code> Treatments::Release(pid_t pid, uid_t releasedBy) {
    auto lock = current_.Lock();
    Treated* treated = current_.FindLiving(pid);
    if (treated == nullptr) {
        lock.unlock();
        PLATFORM_LOGI("uid %{public}u asks to release pid %{public}d, which is not treated", releasedBy, pid);
        return std::nullopt;
    }
    const std::string name = treated->record.processName;
    treated->Cancel();
    const std::error_code error = UndoAll(context_, treated->record, treated->Pidfd());
    ends_.Settle(*treated, error);
    lock.unlock();
    return Announce({EventName::kRelease, pid, name, {.error = error, .note = "asked for"}, releasedBy},
                    context_.isDryRun);
}

void Treatments::ReleaseAll() {
    watcher_.Stop();
    const auto lock = current_.Lock();
    std::vector<Treated*> left = current_.All();
    const auto isReleased = [this](Treated* treated) {
        const TreatmentRecord& record = treated->record;
        if (UndoAll(context_, treated->record, treated->Pidfd())) {
            return false;
        }
        Announce(
            {EventName::kRelease, record.pid, record.processName, {.error = {}, .note = "the host stops"}},
            context_.isDryRun);
        current_.Forget(*treated);
        return true;
    };
    // A group can be removed once those below it are gone, which may have been made for another process.
    while (std::erase_if(left, isReleased) > 0) {
    }
    for (const Treated* treated : left) {
        PLATFORM_LOGE("pid %{public}d (%{public}s) could not be released; its record stays",
                      treated->record.pid, Printable(treated->record.processName).c_str());
    }
    ends_.FinishKills();
}

}  // namespace KITE::Linux
