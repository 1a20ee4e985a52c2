#include "suspend_manager.h"

#include <cerrno>
#include <optional>

#include "actions/treatment_table.h"
#include "runtime/platform_log.h"

namespace KITE {

SuspendManagerClient& SuspendManagerClient::GetInstance() {
    static SuspendManagerClient client;
    return client;
}

int32_t SuspendManagerClient::OperateOneNativeProcess(const NativeProcessInfo& process) {
    if (process.pid < 1 || process.processName.empty()) {
        PLATFORM_LOGE("request refused: pid %{public}d with a name of %{public}lu bytes", process.pid,
                      process.processName.size());
        return EINVAL;
    }
    Linux::TreatmentTable& table = Linux::TreatmentTable::Instance();
    if (!process.isFreeze) {
        return table.Thaw(process.pid, process.processName);
    }
    const bool hasEnd = process.durationMs >= 0;
    return table.Freeze(process.pid, process.processName,
                        hasEnd ? std::optional(std::chrono::milliseconds(process.durationMs)) : std::nullopt);
}

}  // namespace KITE
