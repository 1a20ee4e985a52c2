#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <variant>
#include <vector>

#include "kelvra_manager/manager/window.h"

namespace KITE::Linux::Sampling {

// What one sample read of one process; absent where nothing was asked for or nothing could be read.
struct Measurements {
    TimePoint at;                         // the sample's place on the grid of sample times
    std::optional<int64_t> memoryKiB;     // PSS, or RSS where that is above no quota; PSS is not more
    std::optional<nanoseconds> cpuTime;   // of all threads
    TimePoint cpuReadAt;                  // when cpuTime was read
    std::optional<int64_t> writtenBytes;  // sent to storage
};

struct Breach {
    const Rule* rule = nullptr;
    int64_t measured = 0;
};

// The windows of all rules of one process. Pure; one thread. The rules must outlive it.
class ProcessWindows {
  public:
    explicit ProcessWindows(std::span<const Rule> rules);

    void Add(const Measurements& sample);
    // The breaches that the last sample showed and that are to be reported: at most one of each resource,
    // none of one that is held back. Of several rules of a resource the one that was silent for longest comes
    // first, so that none starves another. The window of each breach taken starts anew; the others stay
    // broken and are judged again by the next sample.
    std::vector<Breach> TakeBreaches(const std::function<bool(Resource)>& isHeldBack);

  private:
    struct Judged {
        const Rule* rule;
        std::variant<LevelWindow, CounterWindow> window;
        std::optional<int64_t> breach;
        uint64_t reportedAs = 0;  // place in the order of this process's reports; 0 before the first
    };

    static std::optional<int64_t> Judge(Judged& judged, const Measurements& sample);
    Judged* NextBreachOf(Resource resource);

    std::vector<Judged> judged_;
    uint64_t reports_ = 0;
};

}  // namespace KITE::Linux::Sampling
