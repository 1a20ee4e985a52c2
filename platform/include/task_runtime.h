#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "visibility.h"

namespace KITE {

struct TaskAttributes {
    std::string name;
    std::chrono::microseconds delay{0};
};

// Runs a task once on a worker thread, after the delay on the monotonic clock, and does not wait for it.
// Tasks have no order and may run at the same time. A task that throws is logged and dropped. When the host
// stops, tasks without a delay still run, and delayed ones that are not due are dropped. Any thread.
KITE_API void SubmitTask(std::function<void()> task, TaskAttributes attributes);

}  // namespace KITE
