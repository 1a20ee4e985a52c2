#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "integration/process.h"
#include "kelvra_manager_client.h"

namespace KITE::Benchmarks {

inline constexpr size_t kWatched = 50;

// The processes that exist, kernel threads included.
size_t ProcessCount();

std::string WatchedName(size_t index);
// Quotas of every resource type for the watched names, which none of the crowd breaks.
std::vector<Kelvra::ResQuotaInfo> WatchedQuotas();

// Small processes that sleep, the first kWatched of them under the watched names. They end with this object,
// and with this program.
class Crowd {
  public:
    // Adds to the crowd until it has all that are watched and so many processes exist on the machine.
    void GrowTo(size_t processes);

    const std::deque<Integration::Process>& Members() const { return members_; }

  private:
    std::deque<Integration::Process> members_;
};

}  // namespace KITE::Benchmarks
