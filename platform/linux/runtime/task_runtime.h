#pragma once

#include <asio/thread_pool.hpp>
#include <functional>
#include <mutex>
#include <optional>

// The declared operations; not this file, which has the same name.
#include <task_runtime.h>
#include "visibility.h"

namespace KITE::Linux {

// The worker threads that run submitted tasks; see SubmitTask. They start with the first use.
class KITE_API TaskRuntime {
  public:
    static TaskRuntime& Instance();

    TaskRuntime();
    ~TaskRuntime() { Stop(); }

    void Submit(std::function<void()> function, TaskAttributes attributes);

    // Drops later tasks, with a log line each, and those whose delay has not passed; waits until all others
    // have run, and joins the threads. A second call does nothing. Not to be called by a task.
    void Stop();

  private:
    std::mutex mutex_;
    bool isStopped_ = false;  // guarded by the mutex; once set, the pools get nothing more
    std::optional<asio::thread_pool> workers_;
    // A pool of their own, so that Stop can wait for all submitted tasks without waiting for delays.
    std::optional<asio::thread_pool> timers_;
};

}  // namespace KITE::Linux
