#include "kelvra_manager/manager/rule_book.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

// Some thirty years: keeps sums of times far from overflow.
constexpr int64_t kLongestDurationSeconds = 1'000'000'000;

constexpr size_t kMostWarnings = 20;

// Why a quota can never apply; null when it can.
const char* FaultOf(const Kelvra::ResQuotaInfo& quota) {
    if (FindResourceType(quota.resType) == nullptr) {
        return "the resource type is unknown";
    }
    const bool canBeName = !quota.processName.empty() && quota.processName.find('/') == std::string::npos;
    return canBeName ? nullptr : "no process can have this name";
}

}  // namespace

RuleBook::RuleBook(std::vector<Kelvra::ResQuotaInfo> quotas) {
    size_t faulty = 0;
    for (Kelvra::ResQuotaInfo& quota : quotas) {
        const char* fault = FaultOf(quota);
        if (fault == nullptr) {
            Add(std::move(quota));
        } else if (++faulty <= kMostWarnings) {
            PLATFORM_LOGW("quota %{public}d, %{public}s of \"%{public}s\", is left out: %{public}s", quota.id,
                          Printable(quota.resType).c_str(), Printable(quota.processName).c_str(), fault);
        }
    }
    if (faulty > kMostWarnings) {
        PLATFORM_LOGW("%{public}lu quotas are left out in all", faulty);
    }
}

void RuleBook::Add(Kelvra::ResQuotaInfo quota) {
    const Resource resource = FindResourceType(quota.resType)->resource;
    const std::chrono::seconds duration(std::clamp(quota.duration, int64_t{0}, kLongestDurationSeconds));
    std::vector<Rule>& rules = rules_[quota.processName];
    rules.push_back({resource, duration, std::move(quota)});
}

std::span<const Rule> RuleBook::RulesFor(std::string_view processName) const {
    const auto found = rules_.find(processName);
    return found == rules_.end() ? std::span<const Rule>() : std::span<const Rule>(found->second);
}

}  // namespace KITE::Linux::Sampling
