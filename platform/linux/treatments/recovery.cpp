#include "treatments/recovery.h"

#include <cerrno>
#include <utility>

#include "base/event_names.h"
#include "base/text.h"
#include "proc/pidfd.h"
#include "runtime/platform_log.h"
#include "treatments/announcement.h"
#include "treatments/freeze.h"
#include "treatments/suppress.h"
#include "treatments/treatment_group.h"

namespace KITE::Linux {

namespace {

std::error_code UndoLeft(TreatmentContext& context, TreatmentRecord& record) {
    const std::string bootId = CurrentBootId();
    if (bootId.empty()) {
        return ErrorOf(EIO);
    }
    if (record.bootId != bootId) {
        return context.records.Remove(record);
    }
    const Result<UniqueFd> pidfd = OpenProcess(record.pid, record.startTime);
    if (!pidfd && !Is(pidfd.Code(), ESRCH)) {
        return pidfd.Code();
    }
    const std::error_code error = Undo(context, record, pidfd ? pidfd->Get() : kNoPidfd);
    return error ? error : AnnounceRelease(record, "left by a host that was killed");
}

}  // namespace

std::error_code Undo(TreatmentContext& context, TreatmentRecord& record, int pidfd, Kept kept) {
    // Thawed first: moving processes out of a frozen group would thaw them too, but one after the other.
    const std::error_code thawError = kept.freeze ? std::error_code() : Thaw(context, record, pidfd).error;
    const std::error_code suppressionError =
        kept.suppression ? std::error_code() : EndSuppression(context, record, pidfd).error;
    CleanUp(context, record);
    return thawError ? thawError : (suppressionError ? suppressionError : record.cleanupError);
}

bool ReleaseEach(std::vector<TreatmentRecord*> left, const UndoOne& undo) {
    // A group can be removed once those below it are gone, which may have been made for another process.
    while (std::erase_if(left, [&](TreatmentRecord* record) { return !undo(*record); }) > 0) {
    }
    for (const TreatmentRecord* record : left) {
        PLATFORM_LOGE("pid %{public}d (%{public}s) could not be released; its record stays", record->pid,
                      Printable(record->processName).c_str());
    }
    return left.empty();
}

bool ReleaseLeftTreatments() {
    TreatmentContext context;
    return ReleaseLeftTreatments(context);
}

bool ReleaseLeftTreatments(TreatmentContext& context) {
    RecordStore::Left onRecord = context.records.ReadAll(context.cgroups);
    std::vector<TreatmentRecord*> left;
    for (TreatmentRecord& record : onRecord.records) {
        if (record.IsOfAnotherLivingHost()) {
            PLATFORM_LOGI(
                "pid %{public}d (%{public}s) stays treated: the host of pid %{public}d, which lives, does it",
                record.pid, Printable(record.processName).c_str(), record.hostPid);
        } else {
            left.push_back(&record);
        }
    }
    const auto undo = [&](TreatmentRecord& record) { return UndoLeft(context, record); };
    return ReleaseEach(std::move(left), undo) && onRecord.areAll;
}

}  // namespace KITE::Linux
