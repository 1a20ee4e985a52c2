#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/resource_types.h"
#include "kelvra_manager_client.h"

namespace KITE::Linux::Sampling {

using std::chrono::nanoseconds;

// A quota, ready to be judged.
struct Rule {
    const ResourceType* type = nullptr;
    // Length of the window. Zero, for a quota whose duration is not positive, means the shortest window that
    // sampling allows: each sample of a level, and the time between two samples of a counter.
    nanoseconds duration{0};
    Kelvra::ResQuotaInfo quota;
};

// The rules by process name. Immutable; any thread.
class RuleBook {
  public:
    // A quota that can never apply is left out, with a warning: one of an unknown resource type, or of a name
    // that no process can have, because it is empty or has a slash.
    explicit RuleBook(const std::vector<Kelvra::ResQuotaInfo>& quotas = {});

    // The rules for processes of that name, in the order in which they came; they live as long as the book.
    std::span<const Rule> RulesFor(std::string_view processName) const;
    bool IsEmpty() const noexcept { return rules_.empty(); }

  private:
    std::map<std::string, std::vector<Rule>, std::less<>> rules_;
};

}  // namespace KITE::Linux::Sampling
