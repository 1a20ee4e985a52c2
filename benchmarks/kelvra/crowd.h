#pragma once

#include <cstddef>
#include <deque>
#include <string>

#include "integration/process.h"

namespace KITE::Benchmarks {

// The processes that exist, kernel threads included.
size_t ProcessCount();

std::string WatchedName(size_t index);
// Quotas of every resource type for the first watched names, none of which a process that sleeps breaks: four
// records a name, as elements of a policy.
std::string WatchedPolicy(size_t names);

// Small processes that sleep, the first of them under the watched names. They end with this object, and with
// this program.
class Crowd {
  public:
    explicit Crowd(size_t watched) : watched_(watched) {}

    // Adds to the crowd until it has all that are watched and so many processes exist on the machine.
    void GrowTo(size_t processes);

    const std::deque<Integration::Process>& Members() const { return members_; }

  private:
    const size_t watched_;
    std::deque<Integration::Process> members_;
};

}  // namespace KITE::Benchmarks
