#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>

namespace KITE::Linux {

// A value that one thread sets once and another waits for. Where the waiting one may give up, both share it.
template <typename T>
class Outcome {
  public:
    void Set(T value) {
        // Notified under the lock: the waiting thread may destroy this as soon as it sees the value.
        const std::lock_guard lock(mutex_);
        value_ = std::move(value);
        set_.notify_all();
    }

    // The value, or nothing when it is not there in time.
    std::optional<T> WaitFor(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        set_.wait_for(lock, limit, [this] { return value_.has_value(); });
        return std::exchange(value_, std::nullopt);
    }

    T Wait() {
        std::unique_lock lock(mutex_);
        set_.wait(lock, [this] { return value_.has_value(); });
        return std::move(*value_);
    }

  private:
    std::mutex mutex_;
    std::condition_variable set_;
    std::optional<T> value_;
};

}  // namespace KITE::Linux
