#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/resource_types.h"
#include "kelvra_manager_client.h"

namespace KITE::Linux::Sampling {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;
using std::chrono::nanoseconds;

// One quota, ready to be judged.
struct Rule {
    Resource resource = Resource::kMemory;
    // Length of the window. Zero, for a quota whose duration is not positive, means the shortest window that
    // sampling allows: each sample of a level, and the time between two samples of a counter.
    nanoseconds duration{0};
    Kelvra::ResQuotaInfo quota;
};

// The quotas by process name. Immutable; any thread.
class RuleBook {
  public:
    // A quota that can never apply is left out, with a warning: one of an unknown resource type, or of a name
    // with a slash, which no process bears.
    explicit RuleBook(std::vector<Kelvra::ResQuotaInfo> quotas);

    // The rules for processes of that name, in the order in which they came; they live as long as the book.
    std::span<const Rule> RulesFor(std::string_view processName) const;
    bool IsEmpty() const noexcept { return rules_.empty(); }

  private:
    struct NameHash {
        using is_transparent = void;
        size_t operator()(std::string_view name) const noexcept {
            return std::hash<std::string_view>{}(name);
        }
    };

    void Add(Kelvra::ResQuotaInfo quota);

    std::unordered_map<std::string, std::vector<Rule>, NameHash, std::equal_to<>> rules_;
};

}  // namespace KITE::Linux::Sampling
