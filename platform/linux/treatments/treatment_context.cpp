#include "treatments/treatment_context.h"

#include <utility>

#include "base/result.h"
#include "base/text.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE::Linux {

TreatmentContext TreatmentContext::OfThisHost() {
    return {.cgroups = Cgroups::OfThisMachine(),
            .records = RecordStore(RunDirectory()),
            .isDryRun = GetSettings().isDryRun};
}

std::error_code SavePlan(const TreatmentContext& context, TreatmentRecord& record, TreatmentRecord planned) {
    const std::error_code error = context.records.Write(planned);
    if (error) {
        PLATFORM_LOGE(
            "pid %{public}d (%{public}s) is left alone, since its record cannot be written: %{public}s",
            record.pid, Printable(record.processName).c_str(), error.message().c_str());
        return error;
    }
    record = std::move(planned);
    return {};
}

}  // namespace KITE::Linux
