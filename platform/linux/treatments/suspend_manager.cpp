#include "suspend_manager.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>

#include "runtime/platform_log.h"
#include "treatments/treatments.h"

namespace KITE {

int32_t SuspendManagerClient::OperateOneNativeProcess(const NativeProcessInfo& process) {
    if (process.pid < 1 || process.processName.empty()) {
        PLATFORM_LOGE("request refused: pid %{public}d with a name of %{public}lu bytes", process.pid,
                      process.processName.size());
        return EINVAL;
    }
    Linux::Treatments& treatments = Linux::Treatments::Instance();
    if (!process.isFreeze) {
        return treatments.Thaw(process.pid, process.processName).value();
    }
    std::optional<std::chrono::milliseconds> time;
    if (process.durationMs >= 0) {
        // A later end would not fit into the clock's range.
        constexpr int64_t kLongestMs = std::numeric_limits<int32_t>::max();
        time = std::chrono::milliseconds(std::min(process.durationMs, kLongestMs));
    }
    return treatments.Freeze(process.pid, process.processName, time).value();
}

}  // namespace KITE
