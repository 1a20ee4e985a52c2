// Processes that do nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/unique_fd.h"

namespace KITE::Benchmarks {

// Children that sleep until this object ends them.
class Sleepers {
  public:
    explicit Sleepers(size_t count);
    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;
    ~Sleepers();

    // Fewer than asked for when the system gives no more.
    const std::vector<int32_t>& Pids() const { return pids_; }

  private:
    bool AddOne();

    std::vector<int32_t> pids_;
    std::vector<Linux::UniqueFd> handles_;
};

}  // namespace KITE::Benchmarks
