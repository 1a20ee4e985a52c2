#include "treatments/recovery.h"

#include <cerrno>
#include <vector>

#include "base/event_names.h"
#include "base/text.h"
#include "proc/pidfd.h"
#include "runtime/platform_log.h"
#include "treatments/announcement.h"
#include "treatments/undo.h"

namespace KITE::Linux {

namespace {

std::error_code ReleaseOne(TreatmentContext& context, TreatmentRecord& record) {
    const std::string bootId = CurrentBootId();
    if (bootId.empty()) {
        return ErrorOf(EIO);
    }
    if (record.bootId != bootId) {
        return context.records.Remove(record);
    }
    const Result<UniqueFd> pidfd = OpenProcess(record.pid, record.startTime);
    if (!pidfd && !Is(pidfd.Code(), ESRCH) && !Is(pidfd.Code(), EINVAL)) {
        return pidfd.Code();
    }
    return UndoAll(context, record, pidfd ? pidfd->Get() : kNoPidfd);
}

bool IsLeft(const TreatmentRecord& record) {
    if (record.IsOfAnotherLivingHost()) {
        PLATFORM_LOGI(
            "pid %{public}d (%{public}s) stays treated: the host of pid %{public}d, which lives, does it",
            record.pid, Printable(record.processName).c_str(), record.hostPid);
        return false;
    }
    return true;
}

}  // namespace

bool ReleaseLeftTreatments() {
    TreatmentContext context = TreatmentContext::OfThisHost();
    return ReleaseLeftTreatments(context);
}

bool ReleaseLeftTreatments(TreatmentContext& context) {
    RecordStore::Left onRecord = context.records.ReadAll(context.cgroups);
    std::vector<TreatmentRecord*> left;
    for (TreatmentRecord& record : onRecord.records) {
        if (IsLeft(record)) {
            left.push_back(&record);
        }
    }
    const auto isReleased = [&](TreatmentRecord* record) {
        const bool isOfThisBoot = record->bootId == context.emptyRecord.bootId;
        if (ReleaseOne(context, *record)) {
            return false;
        }
        if (isOfThisBoot) {
            Announce({EventName::kRelease,
                      record->pid,
                      record->processName,
                      {.error = {}, .note = "left by a host that was killed"}},
                     context.isDryRun);
        }
        return true;
    };
    // A group can be removed once those below it are gone, which may have been made for another process.
    while (std::erase_if(left, isReleased) > 0) {
    }
    for (const TreatmentRecord* record : left) {
        PLATFORM_LOGE("pid %{public}d (%{public}s) was left treated and could not be released", record->pid,
                      Printable(record->processName).c_str());
    }
    return onRecord.areAll && left.empty();
}

}  // namespace KITE::Linux
