#include "treatments/current_treatments.h"

#include <algorithm>

#include "base/event_names.h"
#include "base/text.h"
#include "runtime/platform_log.h"
#include "time_service.h"
#include "treatments/freeze.h"
#include "treatments/recovery.h"

namespace KITE::Linux {

namespace {

using Clock = Treated::Clock;

// The moment on the wall clock, in milliseconds since the epoch.
int64_t OnTheWallClock(Clock::time_point moment) {
    const auto ahead = std::chrono::duration_cast<std::chrono::milliseconds>(moment - Clock::now());
    return TimeServiceClient::GetInstance().GetWallTimeMs() + ahead.count();
}

bool HasCome(const std::optional<Clock::time_point>& moment, Clock::time_point now) {
    return moment && *moment <= now;
}

}  // namespace

void Treated::AskForFreeze(std::optional<std::chrono::milliseconds> time) {
    const bool isEndless = !time || (isFrozen && !thawAt);
    thawAt = isEndless
                 ? std::nullopt
                 : std::optional(std::max(Clock::now() + *time, thawAt.value_or(Clock::time_point::min())));
    isFrozen = true;
}

void Treated::CancelFreeze() {
    isFrozen = false;
    thawAt.reset();
}

std::error_code Treated::UndoUnwanted(TreatmentContext& context) {
    return Undo(context, record, Pidfd(), {.suppression = suppressions > 0, .freeze = isFrozen});
}

bool Treated::IsLeft() const {
    return record.cleanupError || (record.suppression && suppressions == 0) || (record.freeze && !isFrozen);
}

Treated& CurrentTreatments::Entry(const ReportedProcessPtr& process) {
    const auto [entry, isNew] = treated_.try_emplace(process->key);
    Treated& treated = entry->second;
    treated.process = process;
    if (isNew) {
        treated.record = context_.emptyRecord;
        std::tie(treated.record.pid, treated.record.startTime) = process->key;
        treated.record.processName = process->name;
    }
    return treated;
}

Treated* CurrentTreatments::FindLiving(pid_t pid) {
    const auto entry = std::ranges::find_if(treated_, [pid](const auto& candidate) {
        const auto& [key, treated] = candidate;
        return key.first == pid && !treated.record.IsEmpty() && treated.Pidfd() != kNoPidfd;
    });
    return entry == treated_.end() ? nullptr : &entry->second;
}

void CurrentTreatments::Settle(Treated& treated) {
    constexpr std::chrono::milliseconds kFirstPause{100};
    constexpr std::chrono::milliseconds kLongestPause{5000};
    const Clock::time_point now = Clock::now();
    if (!treated.IsLeft()) {
        treated.retryAt.reset();
        treated.retryPause = {};
    } else if (!treated.retryAt) {
        treated.retryPause = std::clamp(treated.retryPause * 2, kFirstPause, kLongestPause);
        treated.retryAt = now + treated.retryPause;
    }
    if (treated.death && treated.death->Check(*treated.process, now)) {
        treated.death.reset();
    }
    if (treated.record.IsEmpty() && !treated.death) {
        treated_.erase(ProcessKey(treated.process->key));
    }
    SetMoment();
}

void CurrentTreatments::SetMoment() {
    std::optional<Clock::time_point> next;
    for (const auto& [key, treated] : treated_) {
        const auto check = treated.death ? treated.death->NextCheck() : std::nullopt;
        for (const auto& moment : {treated.thawAt, treated.retryAt, check}) {
            next = moment && (!next || *moment < *next) ? moment : next;
        }
    }
    watcher_.WakeAt(next);
}

std::vector<TreatedProcess> CurrentTreatments::List() const {
    std::vector<TreatedProcess> list;
    for (const auto& [key, treated] : treated_) {
        if (!treated.record.IsEmpty()) {
            list.push_back({.pid = key.first,
                            .name = treated.record.processName,
                            .suppressedSince = treated.record.suppression ? treated.suppressedSince : 0,
                            .frozenSince = treated.record.freeze ? treated.frozenSince : 0,
                            .frozenUntil = treated.thawAt ? OnTheWallClock(*treated.thawAt) : 0,
                            .brokenQuota = treated.process->brokenQuota});
        }
    }
    return list;
}

void CurrentTreatments::DoWhatIsDue(std::optional<pid_t> ended) {
    std::vector<Announcement> toTell;
    {
        const auto lock = Lock();
        const Clock::time_point now = Clock::now();
        for (auto entry = treated_.begin(); entry != treated_.end();) {
            auto& [key, treated] = *entry++;  // which may be forgotten
            const bool hasEnded = key.first == ended && treated.Pidfd() == kNoPidfd;
            if (!hasEnded && HasCome(treated.thawAt, now)) {
                Thaw(treated, toTell);
            } else if ((hasEnded && !treated.record.IsEmpty()) || HasCome(treated.retryAt, now)) {
                TryToUndo(treated, toTell);
            } else if (treated.death) {
                Settle(treated);
            }
        }
    }
    for (const Announcement& announcement : toTell) {
        Announce(announcement);
    }
}

void CurrentTreatments::Thaw(Treated& treated, std::vector<Announcement>& toTell) {
    treated.CancelFreeze();
    TreatmentResult result = Linux::Thaw(context_, treated.record, treated.Pidfd());
    result.note = "its time is over";
    toTell.push_back({EventName::kThaw, treated.record.pid, treated.record.processName, result});
    Settle(treated);
}

void CurrentTreatments::TryToUndo(Treated& treated, std::vector<Announcement>& toTell) {
    const TreatmentRecord& record = treated.record;
    const bool hasEnded = treated.Pidfd() == kNoPidfd;
    if (hasEnded) {
        treated.CancelAll();
    }
    const bool mustThaw = !hasEnded && record.freeze && !treated.isFrozen;
    const bool mustEndSuppression = !hasEnded && record.suppression && treated.suppressions == 0;
    const std::error_code error = treated.UndoUnwanted(context_);
    const auto tell = [&](std::string_view event, const char* note) {
        toTell.push_back({event, record.pid, record.processName, {.error = {}, .note = note}});
    };
    if (hasEnded && !error) {
        tell(EventName::kRelease, "it has ended");
    }
    if (mustThaw && !record.freeze) {
        tell(EventName::kThaw, "at a later attempt");
    }
    if (mustEndSuppression && !record.suppression) {
        tell(EventName::kSuppressEnd, "at a later attempt");
    }
    if (!error && treated.retryAt) {
        PLATFORM_LOGI("pid %{public}d (%{public}s): what could not be undone before is undone now",
                      record.pid, Printable(record.processName).c_str());
    } else if (error && !treated.retryAt) {
        PLATFORM_LOGE(
            "pid %{public}d (%{public}s) has ended, but not all of its treatment can be undone yet: "
            "%{public}s; it is tried again",
            record.pid, Printable(record.processName).c_str(), error.message().c_str());
    }
    treated.retryAt.reset();  // this was the attempt
    Settle(treated);
}

void CurrentTreatments::ReleaseAll() {
    std::vector<TreatmentRecord*> all;
    for (auto& [key, treated] : treated_) {
        if (treated.death) {
            treated.death->Check(*treated.process, Clock::time_point::max());
            treated.death.reset();
        }
        if (!treated.record.IsEmpty()) {
            all.push_back(&treated.record);
        }
    }
    ReleaseEach(std::move(all), [this](TreatmentRecord& record) {
        const int pidfd = treated_.at({record.pid, record.startTime}).Pidfd();
        const std::error_code error = Undo(context_, record, pidfd);
        return error ? error : AnnounceRelease(record, "the host stops");
    });
    std::erase_if(treated_, [](const auto& entry) { return entry.second.record.IsEmpty(); });
}

}  // namespace KITE::Linux
