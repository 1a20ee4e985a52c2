#include "actions/treatments.h"

#include "actions/process_handles.h"
#include "actions/treatment_table.h"

namespace KITE::Linux {

bool RememberReportedProcess(int32_t pid, int64_t startTime, const std::string& processName) {
    return TreatmentTable::Instance().Remember(pid, startTime, processName);
}

void ReleaseAllTreatments() {
    TreatmentTable::Instance().ReleaseAll();
}

bool ReleaseLeftTreatments() {
    return TreatmentTable::Instance().ReleaseLeft();
}

}  // namespace KITE::Linux
