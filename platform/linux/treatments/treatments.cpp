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
void LetDie(TreatmentContext& context, Treated& treated) {
    if (context.isDryRun) {
        treated.CancelAll();
        treated.UndoUnwanted(context);
    } else {
        treated.suppressions = 0;
        EndSuppression(context, treated.record, treated.Pidfd());
    }
}

}  // namespace

Treatments& Treatments::Instance() {
    static Treatments treatments{TreatmentContext()};
    return treatments;
}

Treatments::Treatments(TreatmentContext context, std::chrono::milliseconds killPatience)
    : context_(std::move(context)), killPatience_(killPatience), watcher_([this](std::optional<pid_t> ended) {
          if (ended) {
              reported_.DropExited(*ended);
          }
          current_.DoWhatIsDue(ended);
      }) {}

bool Treatments::Remember(pid_t pid, int64_t startTime, const std::string& name, BrokenQuota brokenQuota) {
    const Result<ReportedProcessPtr> process =
        reported_.Remember(pid, startTime, name, std::move(brokenQuota));
    const std::error_code error = process ? watcher_.Start() : process.Code();
    if (error) {
        PLATFORM_LOGE("reported pid %{public}d (%{public}s) cannot be treated: %{public}s", pid,
                      Printable(name).c_str(),
                      process ? Failure("its end cannot be watched", error).Text().c_str()
                              : process.Why().Text().c_str());
    }
    return !error;
}

std::error_code Treatments::Begin(std::string_view event, pid_t pid, const std::string& name,
                                  const Treat& treat) {
    const Result<ReportedProcessPtr> process = Admit(reported_, pid, name);
    if (!process) {
        return Announce({event, pid, name, Refusal(process.Why())});
    }
    auto lock = current_.Lock();
    TreatmentResult result{watcher_.Start(), "", "its end cannot be watched"};
    if (!result.error) {
        Treated& treated = current_.Entry(*process);
        result = treat(treated);
        if (!result.error) {
            treated.names.insert(name);
        }
        current_.Settle(treated);
    }
    lock.unlock();
    return Announce({event, pid, name, std::move(result)});
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
    current_.Settle(*treated);
    lock.unlock();
    return Announce({event, pid, name, std::move(*result)});
}

std::error_code Treatments::Suppress(pid_t pid, const std::string& name) {
    return Begin(EventName::kSuppress, pid, name, [&](Treated& treated) -> TreatmentResult {
        const int pidfd = treated.process->pidfd;
        TreatmentResult result{.error = {}, .note = "it is suppressed already"};
        if (treated.suppressions == 0) {
            // Half of an earlier one may be left, which does not suppress.
            result = Linux::EndSuppression(context_, treated.record, pidfd);
            if (result.error) {
                result.note = "an earlier one could not be ended yet";
                return result;
            }
            result = Linux::Suppress(context_, treated.record, pidfd);
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
            result = Linux::Freeze(context_, treated.record, treated.process->pidfd);
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
        treated.CancelFreeze();
        return Linux::Thaw(context_, treated.record, treated.Pidfd());
    });
}

std::error_code Treatments::Kill(pid_t pid, const std::string& name, const std::string& reason) {
    const Result<ReportedProcessPtr> process = Admit(reported_, pid, name);
    if (!process) {
        return Announce({EventName::kKill, pid, name, Refusal(process.Why())});
    }
    // Held while this is announced, so that the event stands before that of the end, which takes it too.
    const auto lock = current_.Lock();
    TreatmentResult result{.error = {}, .note = Printable(reason)};
    if (!context_.isDryRun) {
        result.error = SendKill((*process)->pidfd);
        result.means = "SIGKILL";
    }
    const std::error_code error = Announce({EventName::kKill, pid, name, result});
    if (!error) {
        Treated& treated = current_.Entry(*process);
        if (!context_.isDryRun && !treated.death) {
            treated.death.emplace(killPatience_);
        }
        LetDie(context_, treated);
        current_.Settle(treated);
    }
    return error;
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
    treated->CancelAll();
    const std::error_code error = treated->UndoUnwanted(context_);
    current_.Settle(*treated);
    lock.unlock();
    return Announce({EventName::kRelease, pid, name, {.error = error, .note = "asked for"}, releasedBy});
}

void Treatments::ReleaseAll() {
    watcher_.Stop();
    const auto lock = current_.Lock();
    current_.ReleaseAll();
}

}  // namespace KITE::Linux
