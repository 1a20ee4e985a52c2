#include "runtime/task_runtime.h"

#define ASIO_STANDALONE
#include <algorithm>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
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
#include "runtime/platform_log.h"

namespace KITE::Linux {

namespace {

// Longer delays would overflow the clock; none of them ever ends.
constexpr std::chrono::microseconds kMaxDelay = std::chrono::hours(24 * 365 * 100);

size_t WorkerCount() {
    return std::clamp<size_t>(std::thread::hardware_concurrency(), 2, 4);
}

// A submitted task on its way to a worker.
struct Task {
    void operator()() {
        try {
            function();
        } catch (const std::exception& exception) {
            PLATFORM_LOGE("task %{public}s failed: %{public}s", name.c_str(), exception.what());
        } catch (...) {
            PLATFORM_LOGE("task %{public}s failed: it threw what is no exception", name.c_str());
        }
    }

    std::string name;
    std::function<void()> function;
};

}  // namespace

// The workers, and a thread of their own for the delays: so the submitted tasks can be waited for without
// waiting for delays.
class TaskRuntime::Threads {
  public:
    Threads();
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;
    ~Threads() { Stop(); }

    void Submit(Task task, std::chrono::microseconds delay);
    void Stop();

  private:
    bool Accept(Task& task, std::chrono::microseconds delay);
    void PostAfter(Task task, std::chrono::microseconds delay);

    std::mutex mutex_;
    bool stopped_ = false;  // guarded by mutex_; nothing is handed to the members below once it is set
    asio::thread_pool workers_;
    std::optional<asio::io_context> timers_;
    std::thread timerThread_;
};

TaskRuntime::Threads::Threads() : workers_(WorkerCount()), timers_(std::in_place, 1) {
    timerThread_ = std::thread([this] {
        const auto staysWithoutTimers = asio::make_work_guard(*timers_);
        timers_->run();
    });
}

void TaskRuntime::Threads::Submit(Task task, std::chrono::microseconds delay) {
    if (!Accept(task, delay)) {
        PLATFORM_LOGW("task %{public}s comes after the end and is dropped", task.name.c_str());
    }
}

bool TaskRuntime::Threads::Accept(Task& task, std::chrono::microseconds delay) {
    const std::lock_guard lock(mutex_);
    if (stopped_) {
        return false;
    }
    if (delay <= std::chrono::microseconds::zero()) {
        asio::post(workers_, std::move(task));
    } else {
        PostAfter(std::move(task), std::min(delay, kMaxDelay));
    }
    return true;
}

void TaskRuntime::Threads::PostAfter(Task task, std::chrono::microseconds delay) {
    auto timer = std::make_shared<asio::steady_timer>(*timers_, delay);
    asio::steady_timer& waiting = *timer;
    waiting.async_wait(
        [this, timer = std::move(timer), task = std::move(task)](const asio::error_code& error) mutable {
            if (!error) {
                asio::post(workers_, std::move(task));
            }
        });
}

void TaskRuntime::Threads::Stop() {
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(stopped_, true)) {
            return;
        }
    }
    timers_->stop();
    timerThread_.join();
    // Drops the delayed tasks with all that they hold, which may have its own ideas at its end: not under the
    // lock.
    timers_.reset();
    workers_.join();
}

TaskRuntime& TaskRuntime::Instance() {
    static Immortal<TaskRuntime> instance;
    return instance.value;
}

TaskRuntime::TaskRuntime() {
    const SignalsBlocked blocked;
    threads_ = std::make_unique<Threads>();
}

TaskRuntime::~TaskRuntime() = default;

void TaskRuntime::Submit(std::function<void()> task, TaskAttributes attributes) {
    threads_->Submit({std::move(attributes.name), std::move(task)}, attributes.delay);
}

void TaskRuntime::Stop() {
    threads_->Stop();
}

}  // namespace KITE::Linux

namespace KITE {

void SubmitTask(std::function<void()> task, TaskAttributes attributes) {
    try {
        Linux::TaskRuntime::Instance().Submit(std::move(task), std::move(attributes));
    } catch (const std::exception& exception) {
        PLATFORM_LOGE("a task is dropped: %{public}s", exception.what());
    }
}

}  // namespace KITE
