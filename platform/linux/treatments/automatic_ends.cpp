#include "treatments/automatic_ends.h"

#include <optional>

#include "base/event_names.h"
#include "base/text.h"
#include "runtime/platform_log.h"
#include "treatments/freeze.h"
#include "treatments/undo.h"

namespace KITE::Linux {

void AutomaticEnds::Settle(Treated& treated, const std::error_code& error) {
    current_.Settle(treated, error);
    SetMoment();
}

void AutomaticEnds::ExpectDeath(const ReportedProcessPtr& process) {
    kills_.Add(process);
    // Its end may have come, and been told, before it was in the list.
    kills_.Check(Clock::now());
    SetMoment();
}

void AutomaticEnds::SetMoment() {
    std::optional<Clock::time_point> next = current_.NextMoment();
    const std::optional<Clock::time_point> check = kills_.NextCheck();
    watcher_.WakeAt(check && (!next || *check < *next) ? check : next);
}

void AutomaticEnds::OnEnd(pid_t pid) {
    std::vector<Announcement> toTell;
    {
        const auto lock = current_.Lock();
        kills_.Check(Clock::now());
        UndoEnded(pid, toTell);
    }
    Tell(toTell);
}

void AutomaticEnds::OnMoment() {
    std::vector<Announcement> toTell;
    {
        const auto lock = current_.Lock();
        const Clock::time_point now = Clock::now();
        ThawDue(now, toTell);
        RetryDue(now, toTell);
        kills_.Check(now);
        SetMoment();
    }
    Tell(toTell);
}

void AutomaticEnds::UndoEnded(pid_t pid, std::vector<Announcement>& toTell) {
    for (Treated* treated : current_.All()) {
        if (treated->record.pid != pid || treated->Pidfd() != kNoPidfd) {
            continue;
        }
        const std::string name = treated->record.processName;
        treated->thawAt.reset();
        const std::error_code error = UndoAll(context_, treated->record, kNoPidfd);
        if (error) {
            PLATFORM_LOGE(
                "pid %{public}d (%{public}s) has ended, but not all of its treatment can be undone yet: "
                "%{public}s; it is tried again",
                pid, Printable(name).c_str(), error.message().c_str());
        } else {
            toTell.push_back({EventName::kRelease, pid, name, {.error = {}, .note = "it has ended"}});
        }
        Settle(*treated, error);
    }
}

void AutomaticEnds::ThawDue(Clock::time_point now, std::vector<Announcement>& toTell) {
    for (Treated* treated : current_.All()) {
        if (!treated->thawAt || *treated->thawAt > now) {
            continue;
        }
        treated->isFrozen = false;
        treated->thawAt.reset();
        TreatmentResult result = Thaw(context_, treated->record, treated->Pidfd());
        result.note = "its time is over";
        toTell.push_back({EventName::kThaw, treated->record.pid, treated->record.processName, result});
        Settle(*treated, result.FirstError());
    }
}

void AutomaticEnds::RetryDue(Clock::time_point now, std::vector<Announcement>& toTell) {
    for (Treated* treated : current_.All()) {
        if (treated->retry.Moment() && *treated->retry.Moment() <= now) {
            Settle(*treated, TryAgain(context_, *treated, toTell));
        }
    }
}

void AutomaticEnds::Tell(const std::vector<Announcement>& toTell) const {
    for (const Announcement& announcement : toTell) {
        Announce(announcement, context_.isDryRun);
    }
}

}  // namespace KITE::Linux
