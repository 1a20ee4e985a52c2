#include "treatments/kill.h"

#include <signal.h>

#include <algorithm>

#include "base/text.h"
#include "proc/pidfd.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

int64_t MillisecondsSince(PendingKills::Clock::time_point moment) {
    const auto passed = PendingKills::Clock::now() - moment;
    return std::chrono::duration_cast<std::chrono::milliseconds>(passed).count();
}

}  // namespace

std::error_code SendKill(int pidfd) {
    return SendSignal(pidfd, SIGKILL);
}

void PendingKills::Add(const ReportedProcessPtr& process) {
    kills_.try_emplace(process->Key(), Kill{process, Clock::now()});
}

void PendingKills::Check(Clock::time_point now) {
    std::erase_if(kills_, [](const auto& entry) {
        const auto& [key, kill] = entry;
        const bool isGone = HasExited(kill.process->Pidfd());
        if (isGone) {
            PLATFORM_LOGI("killed pid %{public}d (%{public}s) is gone after %{public}ld ms", key.first,
                          Printable(kill.process->Name()).c_str(), MillisecondsSince(kill.since));
        }
        return isGone;
    });
    for (auto& [key, kill] : kills_) {
        if (!kill.isOverdue && now >= kill.since + patience_) {
            kill.isOverdue = true;
            PLATFORM_LOGW("killed pid %{public}d (%{public}s) is still pending after %{public}ld ms",
                          key.first, Printable(kill.process->Name()).c_str(), MillisecondsSince(kill.since));
        }
    }
}

std::optional<PendingKills::Clock::time_point> PendingKills::NextCheck() const {
    std::optional<Clock::time_point> next;
    for (const auto& [key, kill] : kills_) {
        if (!kill.isOverdue) {
            next = std::min(next.value_or(Clock::time_point::max()), kill.since + patience_);
        }
    }
    return next;
}

void PendingKills::Finish() {
    Check(Clock::time_point::max());
    kills_.clear();
}

}  // namespace KITE::Linux
