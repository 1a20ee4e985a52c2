#pragma once

#include <chrono>
#include <optional>
#include <utility>

namespace KITE::Linux {

// Keeps a line that others can provoke at will from filling the log: one per pause. One thread.
class RepeatLimit {
  public:
    explicit RepeatLimit(std::chrono::seconds pause) : pause_(pause) {}

    // When a line may be written now: how many were not since the last one.
    std::optional<unsigned> MayWrite() {
        const auto now = std::chrono::steady_clock::now();
        if (now < next_) {
            ++suppressed_;
            return std::nullopt;
        }
        next_ = now + pause_;
        return std::exchange(suppressed_, 0U);
    }

  private:
    const std::chrono::seconds pause_;
    std::chrono::steady_clock::time_point next_;
    unsigned suppressed_ = 0;
};

}  // namespace KITE::Linux
