#include "runtime/task_runtime.h"

#include <algorithm>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "base/immortal.h"
#include "base/thread_signals.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

// A hundred years: longer delays would overflow the clock.
constexpr std::chrono::microseconds kMaxDelay = std::chrono::hours(24 * 365 * 100);

size_t WorkerCount() {
    return std::clamp<size_t>(std::thread::hardware_concurrency(), 2, 4);
}

// A submitted task on its way to a worker.
struct Task {
    void operator()() { RunGuarded(("task " + name).c_str(), function); }

    std::string name;
    std::function<void()> function;
};

}  // namespace

// The delays have a pool of their own, so that Stop can wait for all submitted tasks without waiting for
// delays.
struct TaskRuntime::Threads {
    std::mutex mutex;
    bool isStopped = false;  // guarded by mutex; once set, the pools get nothing more
    asio::thread_pool workers{WorkerCount()};
    std::optional<asio::thread_pool> timers{1};

    void PostAfter(Task task, std::chrono::microseconds delay);
    bool Accept(Task& task, std::chrono::microseconds delay);
};

void TaskRuntime::Threads::PostAfter(Task task, std::chrono::microseconds delay) {
    const auto timer = std::make_shared<asio::steady_timer>(*timers, delay);
    timer->async_wait([this, timer, task = std::move(task)](const asio::error_code& error) mutable {
        if (!error) {
            asio::post(workers, std::move(task));
        }
    });
}

bool TaskRuntime::Threads::Accept(Task& task, std::chrono::microseconds delay) {
    const std::lock_guard lock(mutex);
    if (isStopped) {
        return false;
    }
    if (delay <= std::chrono::microseconds::zero()) {
        asio::post(workers, std::move(task));
    } else {
        PostAfter(std::move(task), std::min(delay, kMaxDelay));
    }
    return true;
}

TaskRuntime& TaskRuntime::Instance() {
    static Immortal<TaskRuntime> instance;
    return instance.value;
}

TaskRuntime::TaskRuntime() {
    const SignalsBlocked blocked;
    threads_ = std::make_unique<Threads>();
}

TaskRuntime::~TaskRuntime() {
    Stop();
}

void TaskRuntime::Submit(std::function<void()> function, TaskAttributes attributes) {
    Task task{std::move(attributes.name), std::move(function)};
    if (!threads_->Accept(task, attributes.delay)) {
        PLATFORM_LOGW("task %{public}s is dropped: the host stops", task.name.c_str());
    }
}

void TaskRuntime::Stop() {
    {
        const std::lock_guard lock(threads_->mutex);
        if (std::exchange(threads_->isStopped, true)) {
            return;
        }
    }
    threads_->timers->stop();
    threads_->timers->join();
    // Drops the delayed tasks with all that they hold. Not under the lock: what they hold may submit a task
    // when it is destroyed.
    threads_->timers.reset();
    threads_->workers.join();
}

}  // namespace KITE::Linux

namespace KITE {

void SubmitTask(std::function<void()> task, TaskAttributes attributes) {
    Linux::RunGuarded("SubmitTask",
                      [&] { Linux::TaskRuntime::Instance().Submit(std::move(task), std::move(attributes)); });
}

}  // namespace KITE
