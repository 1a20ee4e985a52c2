#pragma once

#include <functional>
#include <memory>

// The declared operations; not this file, which has the same name.
#include <task_runtime.h>
#include "visibility.h"

namespace KITE::Linux {

// The worker threads that run submitted tasks; see SubmitTask. They start with the first use.
class KITE_API TaskRuntime {
  public:
    static TaskRuntime& Instance();

    TaskRuntime();
    TaskRuntime(const TaskRuntime&) = delete;
    TaskRuntime& operator=(const TaskRuntime&) = delete;
    ~TaskRuntime();

    void Submit(std::function<void()> function, TaskAttributes attributes);

    // Accepts no further tasks (each is dropped with a log line), drops those whose delay has not passed,
    // waits until all others have run, and joins the threads. A second call does nothing. Not to be called by
    // a task.
    void Stop();

  private:
    struct Threads;
    std::unique_ptr<Threads> threads_;
};

}  // namespace KITE::Linux
