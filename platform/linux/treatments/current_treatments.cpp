#include "treatments/current_treatments.h"

#include <algorithm>

#include "proc/pidfd.h"
#include "time_service.h"
#include "treatments/treatment_context.h"

namespace KITE::Linux {

namespace {

// The moment on the wall clock, in milliseconds since the epoch.
int64_t OnTheWallClock(Treated::Clock::time_point moment) {
    const auto ahead = std::chrono::duration_cast<std::chrono::milliseconds>(moment - Treated::Clock::now());
    return TimeServiceClient::GetInstance().GetWallTimeMs() + ahead.count();
}

}  // namespace

int Treated::Pidfd() const {
    return HasExited(process->Pidfd()) ? kNoPidfd : process->Pidfd();
}

void Treated::AskForFreeze(std::optional<std::chrono::milliseconds> time) {
    const bool isEndless = !time || (isFrozen && !thawAt);
    isFrozen = true;
    if (isEndless) {
        thawAt.reset();
    } else {
        thawAt = std::max(Clock::now() + *time, thawAt.value_or(Clock::time_point::min()));
    }
}

void Treated::Cancel() {
    suppressions = 0;
    isFrozen = false;
    thawAt.reset();
}

Treated& CurrentTreatments::Entry(const ReportedProcessPtr& process, const TreatmentRecord& emptyRecord) {
    const auto [entry, isNew] = treated_.try_emplace(process->Key());
    Treated& treated = entry->second;
    if (isNew) {
        treated.process = process;
        treated.record = emptyRecord;
        std::tie(treated.record.pid, treated.record.startTime) = process->Key();
        treated.record.processName = process->Name();
    }
    return treated;
}

Treated* CurrentTreatments::Find(const ProcessKey& key) {
    const auto entry = treated_.find(key);
    return entry == treated_.end() ? nullptr : &entry->second;
}

Treated* CurrentTreatments::FindLiving(pid_t pid) {
    const auto entry = std::ranges::find_if(treated_, [pid](const auto& candidate) {
        return candidate.first.first == pid && candidate.second.Pidfd() != kNoPidfd;
    });
    return entry == treated_.end() ? nullptr : &entry->second;
}

std::vector<Treated*> CurrentTreatments::All() {
    std::vector<Treated*> all;
    for (auto& [key, treated] : treated_) {
        all.push_back(&treated);
    }
    return all;
}

void CurrentTreatments::Forget(const Treated& treated) {
    treated_.erase(ProcessKey(treated.process->Key()));
}

void CurrentTreatments::Settle(Treated& treated, const std::error_code& error) {
    if (error) {
        treated.retry.Schedule();
    } else if (treated.record.IsEmpty()) {
        Forget(treated);
    }
}

std::optional<Treated::Clock::time_point> CurrentTreatments::NextMoment() const {
    std::optional<Treated::Clock::time_point> next;
    for (const auto& [key, treated] : treated_) {
        for (const auto& moment : {treated.thawAt, treated.retry.Moment()}) {
            next = moment && (!next || *moment < *next) ? moment : next;
        }
    }
    return next;
}

std::vector<TreatedProcess> CurrentTreatments::List() const {
    std::vector<TreatedProcess> list;
    for (const auto& [key, treated] : treated_) {
        list.push_back({.pid = key.first,
                        .name = treated.record.processName,
                        .suppressedSince = treated.record.suppression ? treated.suppressedSince : 0,
                        .frozenSince = treated.record.freeze ? treated.frozenSince : 0,
                        .frozenUntil = treated.thawAt ? OnTheWallClock(*treated.thawAt) : 0,
                        .brokenQuota = treated.brokenQuota});
    }
    return list;
}

}  // namespace KITE::Linux
