#include "kelvra_manager/manager/rule_book.h"

#include <algorithm>
#include <utility>

#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

// Some thirty years: keeps sums of times far from overflow.
constexpr int64_t kLongestDurationSeconds = 1'000'000'000;

constexpr size_t kMostWarnings = 20;

// What keeps a quota from ever applying; null when nothing does.
const char* FlawOf(const Kelvra::ResQuotaInfo& quota) {
    if (FindResourceType(quota.resType) == nullptr) {
        return "unknown resource type";
    }
    const bool canBeBorne = !quota.processName.empty() && quota.processName.find('/') == std::string::npos;
    return canBeBorne ? nullptr : "no process bears such a name";
}

}  // namespace

RuleBook::RuleBook(std::vector<Kelvra::ResQuotaInfo> quotas) {
    size_t flawed = 0;
    for (Kelvra::ResQuotaInfo& quota : quotas) {
        const char* flaw = FlawOf(quota);
        if (flaw == nullptr) {
            Add(std::move(quota));
        } else if (++flawed <= kMostWarnings) {
            PLATFORM_LOGW("quota %{public}d of %{public}s for %{public}s is left out: %{public}s", quota.id,
                          quota.resType.c_str(), quota.processName.c_str(), flaw);
        }
    }
    if (flawed > kMostWarnings) {
        PLATFORM_LOGW("%{public}lu quotas are left out in all", flawed);
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
