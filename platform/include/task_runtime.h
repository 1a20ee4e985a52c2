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

// Runs a task once on a worker thread, after the delay of the monotonic clock. Tasks without an order between
// them may run at the same time; nothing waits for a task. A task that throws is logged and dropped. When the
// host stops, submitted tasks without a delay still run, delayed ones that are not due are dropped. Any
// thread.
KITE_API void SubmitTask(std::function<void()> task, TaskAttributes attributes);

}  // namespace KITE
