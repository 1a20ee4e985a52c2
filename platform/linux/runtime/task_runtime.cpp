#include "runtime/task_runtime.h"

#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <memory>
#include <thread>
#include <utility>

#include "base/immortal.h"
#include "base/thread_signals.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

TaskRuntime& TaskRuntime::Instance() {
    static Immortal<TaskRuntime> instance;
    return instance.value;
}

TaskRuntime::TaskRuntime() {
    const SignalsBlocked blocked;
    workers_.emplace(std::clamp<size_t>(std::thread::hardware_concurrency(), 2, 4));
    timers_.emplace(1);
}

void TaskRuntime::Submit(std::function<void()> function, TaskAttributes attributes) {
    const std::lock_guard lock(mutex_);
    if (isStopped_) {
        PLATFORM_LOGW("task %{public}s is dropped: the host stops", attributes.name.c_str());
        return;
    }
    auto task = [name = std::move(attributes.name), function = std::move(function)] {
        RunGuarded(("task " + name).c_str(), function);
    };
    if (attributes.delay <= std::chrono::microseconds::zero()) {
        asio::post(*workers_, std::move(task));
        return;
    }
    // A hundred years: longer delays would overflow the clock.
    constexpr std::chrono::microseconds kMaxDelay = std::chrono::hours(24 * 365 * 100);
    const auto timer = std::make_shared<asio::steady_timer>(*timers_, std::min(attributes.delay, kMaxDelay));
    timer->async_wait([this, timer, task = std::move(task)](const asio::error_code& error) mutable {
        if (!error) {
            asio::post(*workers_, std::move(task));
        }
    });
}

void TaskRuntime::Stop() {
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(isStopped_, true)) {
            return;
        }
    }
    timers_->stop();
    timers_->join();
    // Without the lock: what a delayed task holds may submit another when it is destroyed.
    timers_.reset();
    workers_->join();
}

}  // namespace KITE::Linux

namespace KITE {

void SubmitTask(std::function<void()> task, TaskAttributes attributes) {
    Linux::RunGuarded("SubmitTask",
                      [&] { Linux::TaskRuntime::Instance().Submit(std::move(task), std::move(attributes)); });
}

}  // namespace KITE
