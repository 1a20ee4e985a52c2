#include "treatments/kill.h"

#include <signal.h>

#include "base/text.h"
#include "proc/pidfd.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

std::error_code SendKill(int pidfd) {
    return SendSignal(pidfd, SIGKILL);
}

bool Death::Check(const ReportedProcess& process, Clock::time_point now) {
    const auto [pid, startTime] = process.key;
    const int64_t passed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since_).count();
    const bool isGone = HasExited(process.pidfd);
    if (isGone) {
        PLATFORM_LOGI("killed pid %{public}d (%{public}s) is gone after %{public}ld ms", pid,
                      Printable(process.name).c_str(), passed);
    } else if (!isPending_ && now >= since_ + patience_) {
        isPending_ = true;
        PLATFORM_LOGW("killed pid %{public}d (%{public}s) is still pending after %{public}ld ms", pid,
                      Printable(process.name).c_str(), passed);
    }
    return isGone;
}

std::optional<Death::Clock::time_point> Death::NextCheck() const {
    return isPending_ ? std::nullopt : std::optional(since_ + patience_);
}

}  // namespace KITE::Linux
