#include "resource_schedule.h"

#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>
#include <utility>

#include "base/text.h"
#include "runtime/platform_log.h"
#include "treatments/treatments.h"

namespace KITE {

namespace {

using Linux::ParseDecimal;
using Linux::Printable;
using Linux::Treatments;

using Payload = std::unordered_map<std::string, std::string>;

// The one event that this platform takes, and what it may ask for.
constexpr uint32_t kCpuLimitRequest = 72;
constexpr int64_t kFreezeForAWhile = 0;
constexpr int64_t kSuppressionStarts = 5;
constexpr int64_t kSuppressionEnds = 6;

struct Target {
    pid_t pid;
    std::string name;
};

// Empty when it is not there.
std::string TextOf(const Payload& payload, const char* key) {
    const auto entry = payload.find(key);
    return entry == payload.end() ? std::string() : entry->second;
}

// Absent, with an error line, unless it is a pid or a number of milliseconds: decimal and positive.
std::optional<int32_t> NumberOf(const Payload& payload, const char* key) {
    const std::string text = TextOf(payload, key);
    const int64_t number = ParseDecimal(text).value_or(0);
    if (number < 1 || number > std::numeric_limits<int32_t>::max()) {
        PLATFORM_LOGE("request refused: \"%{public}s\" is not a number in range: %{public}s", key,
                      text.empty() ? "absent" : Printable(text).c_str());
        return std::nullopt;
    }
    return static_cast<int32_t>(number);
}

std::optional<Target> TargetOf(const Payload& payload) {
    const std::optional<pid_t> pid = NumberOf(payload, "pid");
    std::string name = TextOf(payload, "processName");
    if (pid && name.empty()) {
        PLATFORM_LOGE("request for pid %{public}d refused: no \"processName\"", *pid);
    }
    return pid && !name.empty() ? std::optional(Target{*pid, std::move(name)}) : std::nullopt;
}

}  // namespace

void ResSchedClient::ReportData(uint32_t resType, int64_t value, const Payload& payload) {
    const bool isKnown =
        value == kFreezeForAWhile || value == kSuppressionStarts || value == kSuppressionEnds;
    if (resType != kCpuLimitRequest || !isKnown) {
        PLATFORM_LOGE("request refused: unknown type %{public}u or value %{public}ld", resType, value);
        return;
    }
    const std::optional<Target> target = TargetOf(payload);
    Treatments& treatments = Treatments::Instance();
    if (target && value == kSuppressionStarts) {
        treatments.Suppress(target->pid, target->name);
    } else if (target && value == kSuppressionEnds) {
        treatments.EndSuppression(target->pid, target->name);
    } else if (const auto time = target ? NumberOf(payload, "freezeTime") : std::nullopt) {
        treatments.Freeze(target->pid, target->name, std::chrono::milliseconds(*time));
    }
}

int32_t ResSchedClient::KillProcess(const Payload& payload) {
    const std::optional<Target> target = TargetOf(payload);
    if (!target) {
        return EINVAL;
    }
    return Treatments::Instance().Kill(target->pid, target->name, TextOf(payload, "killReason")).value();
}

}  // namespace KITE
