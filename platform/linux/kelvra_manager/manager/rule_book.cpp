#include "kelvra_manager/manager/rule_book.h"

#include <algorithm>

#include "base/text.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

// Some thirty years: keeps sums of times far from overflow.
constexpr int64_t kLongestDurationSeconds = 1'000'000'000;

constexpr size_t kMostWarnings = 20;

}  // namespace

RuleBook::RuleBook(const std::vector<Kelvra::ResQuotaInfo>& quotas) {
    size_t faulty = 0;
    for (const Kelvra::ResQuotaInfo& quota : quotas) {
        const ResourceType* const type = FindResourceType(quota.resType);
        const std::string& name = quota.processName;
        if (type != nullptr && !name.empty() && name.find('/') == std::string::npos) {
            const std::chrono::seconds duration(
                std::clamp(quota.duration, int64_t{0}, kLongestDurationSeconds));
            rules_[name].push_back({type, duration, quota});
        } else if (++faulty <= kMostWarnings) {
            PLATFORM_LOGW("quota %{public}d, %{public}s of \"%{public}s\", is left out: %{public}s", quota.id,
                          Printable(quota.resType).c_str(), Printable(name).c_str(),
                          type == nullptr ? "the resource type is unknown" : "no process can have this name");
        }
    }
    if (faulty > kMostWarnings) {
        PLATFORM_LOGW("%{public}lu quotas are left out in all", faulty);
    }
}

std::span<const Rule> RuleBook::RulesFor(std::string_view processName) const {
    const auto found = rules_.find(processName);
    return found == rules_.end() ? std::span<const Rule>() : std::span<const Rule>(found->second);
}

}  // namespace KITE::Linux::Sampling
