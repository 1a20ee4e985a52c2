#include "treatments/treatments.h"

#include <utility>

#include "treatments/treatment_table.h"

namespace KITE::Linux {

bool RememberReportedProcess(int32_t pid, int64_t startTime, const std::string& processName, Breach breach) {
    return TreatmentTable::Instance().Remember(pid, startTime, processName, std::move(breach));
}

std::vector<TreatedProcess> ListTreatments() {
    return TreatmentTable::Instance().List();
}

int32_t ReleaseTreatment(pid_t pid, uid_t releasedBy) {
    return TreatmentTable::Instance().Release(pid, releasedBy);
}

void ReleaseAllTreatments() {
    TreatmentTable::Instance().ReleaseAll();
}

bool ReleaseLeftTreatments() {
    return TreatmentTable::Instance().ReleaseLeft();
}

}  // namespace KITE::Linux
