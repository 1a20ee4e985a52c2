#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "kelvra_manager/manager/process_meter.h"
#include "kelvra_manager/manager/rule_book.h"
#include "kelvra_manager/manager/window.h"

namespace KITE::Linux::Sampling {

// That a rule's quota was exceeded.
struct Breach {
    const Rule* rule = nullptr;
    int64_t measured = 0;
};

// The windows of all rules of one process. Pure; one thread. The rules must outlive it.
class ProcessWindows {
  public:
    explicit ProcessWindows(std::span<const Rule> rules);

    void Add(const Readings& readings);
    // The breaches that the last sample showed and that are to be reported: at most one of each resource,
    // none of one that is held back. Of several rules of a resource the one that was silent for longest comes
    // first, so that none starves another. The window of each breach taken starts anew; the others stay
    // broken and are judged again by the next sample.
    std::vector<Breach> TakeBreaches(const std::function<bool(Resource)>& isHeldBack);

  private:
    struct JudgedRule {
        const Rule* rule;
        std::variant<LevelWindow, CounterWindow> window;
        std::optional<int64_t> measured = std::nullopt;  // what the last sample showed, above the quota
        uint64_t reportedAs = 0;  // place in the order of this process's reports; 0 before the first
    };

    JudgedRule* NextBrokenOf(Resource resource);

    std::vector<JudgedRule> judged_;
    uint64_t reports_ = 0;
};

}  // namespace KITE::Linux::Sampling
