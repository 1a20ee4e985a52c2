#include "resource_schedule.h"

#include <cerrno>
#include <chrono>
#include <limits>
#include <optional>

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

constexpr int64_t kHighestPid = std::numeric_limits<pid_t>::max();
constexpr int64_t kLongestFreezeMs = std::numeric_limits<int32_t>::max();

struct Target {
    pid_t pid;
    std::string name;
};

const std::string* TextOf(const Payload& payload, const char* key) {
    const auto entry = payload.find(key);
    return entry == payload.end() ? nullptr : &entry->second;
}

// Absent, with an error line, unless it is there and decimal and in range.
std::optional<int64_t> NumberOf(const Payload& payload, const char* key, int64_t lowest, int64_t highest) {
    const std::string* text = TextOf(payload, key);
    const std::optional<int64_t> number = text == nullptr ? std::nullopt : ParseDecimal(*text);
    if (!number || *number < lowest || *number > highest) {
        PLATFORM_LOGE("request refused: \"%{public}s\" is not a number in range: %{public}s", key,
                      text == nullptr ? "absent" : Printable(*text).c_str());
        return std::nullopt;
    }
    return number;
}

std::optional<Target> TargetOf(const Payload& payload) {
    const std::optional<int64_t> pid = NumberOf(payload, "pid", 1, kHighestPid);
    const std::string* name = TextOf(payload, "processName");
    if (pid && (name == nullptr || name->empty())) {
        PLATFORM_LOGE("request for pid %{public}ld refused: no \"processName\"", *pid);
    }
    if (!pid || name == nullptr || name->empty()) {
        return std::nullopt;
    }
    return Target{static_cast<pid_t>(*pid), *name};
}

void FreezeForAWhile(const Target& target, const Payload& payload) {
    const std::optional<int64_t> time = NumberOf(payload, "freezeTime", 1, kLongestFreezeMs);
    if (time) {
        Treatments::Instance().Freeze(target.pid, target.name, std::chrono::milliseconds(*time));
    }
}

}  // namespace

ResSchedClient& ResSchedClient::GetInstance() {
    static ResSchedClient client;
    return client;
}

void ResSchedClient::ReportData(uint32_t resType, int64_t value, const Payload& payload) {
    const bool isKnown =
        value == kFreezeForAWhile || value == kSuppressionStarts || value == kSuppressionEnds;
    if (resType != kCpuLimitRequest || !isKnown) {
        PLATFORM_LOGE("request refused: unknown type %{public}u or value %{public}ld", resType, value);
        return;
    }
    const std::optional<Target> target = TargetOf(payload);
    if (target && value == kFreezeForAWhile) {
        FreezeForAWhile(*target, payload);
    } else if (target && value == kSuppressionStarts) {
        Treatments::Instance().Suppress(target->pid, target->name);
    } else if (target) {
        Treatments::Instance().EndSuppression(target->pid, target->name);
    }
}

int32_t ResSchedClient::KillProcess(const Payload& payload) {
    const std::optional<Target> target = TargetOf(payload);
    if (!target) {
        return EINVAL;
    }
    const std::string* reason = TextOf(payload, "killReason");
    return Treatments::Instance().Kill(target->pid, target->name, reason == nullptr ? "" : *reason).value();
}

}  // namespace KITE
