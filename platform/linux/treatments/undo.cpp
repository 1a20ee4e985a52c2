#include "treatments/undo.h"

#include <algorithm>

#include "base/event_names.h"
#include "base/text.h"
#include "runtime/platform_log.h"
#include "treatments/current_treatments.h"
#include "treatments/freeze.h"
#include "treatments/suppress.h"
#include "treatments/treatment_group.h"

namespace KITE::Linux {

namespace {

std::error_code UndoUnwanted(TreatmentContext& context, Treated& treated) {
    const int pidfd = treated.Pidfd();
    if (pidfd == kNoPidfd) {
        return UndoAll(context, treated.record, pidfd);
    }
    std::error_code error;
    if (!treated.isFrozen) {
        error = Thaw(context, treated.record, pidfd).FirstError();
    }
    if (!error && treated.suppressions == 0) {
        error = EndSuppression(context, treated.record, pidfd).FirstError();
    }
    return error ? error : CleanUp(context, treated.record);
}

}  // namespace

std::error_code UndoAll(TreatmentContext& context, TreatmentRecord& record, int pidfd) {
    // Thawed first: moving processes out of a frozen group would thaw them too, but one after the other.
    const std::error_code thawError = Thaw(context, record, pidfd).error;
    const std::error_code suppressionError = EndSuppression(context, record, pidfd).error;
    const std::error_code cleanupError = CleanUp(context, record);
    return thawError ? thawError : (suppressionError ? suppressionError : cleanupError);
}

void RetryTime::Schedule() {
    moment_ = Clock::now() + pause_;
    pause_ = std::min(pause_ * 2, kLongestPause);
}

void RetryTime::Clear() {
    *this = RetryTime();
}

std::error_code TryAgain(TreatmentContext& context, Treated& treated, std::vector<Announcement>& toTell) {
    const TreatmentRecord& record = treated.record;
    const bool hasEnded = treated.Pidfd() == kNoPidfd;
    const bool mustThaw = record.freeze && !treated.isFrozen;
    const bool mustEndSuppression = record.suppression && treated.suppressions == 0;
    const std::error_code error = UndoUnwanted(context, treated);
    const auto tell = [&](std::string_view event, const char* note) {
        toTell.push_back({event, record.pid, record.processName, {.error = {}, .note = note}});
    };
    if (hasEnded && !error) {
        tell(EventName::kRelease, "it has ended");
    }
    if (!hasEnded && mustThaw && !record.freeze) {
        tell(EventName::kThaw, "at a later attempt");
    }
    if (!hasEnded && mustEndSuppression && !record.suppression) {
        tell(EventName::kSuppressEnd, "at a later attempt");
    }
    if (!error) {
        PLATFORM_LOGI("pid %{public}d (%{public}s): what could not be undone before is undone now",
                      record.pid, Printable(record.processName).c_str());
        treated.retry.Clear();
    }
    return error;
}

}  // namespace KITE::Linux
