#pragma once

#include <sys/types.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "base/result.h"
#include "base/unique_fd.h"

namespace KITE::Linux {

// One thread that waits for processes to end and for a moment to come.
class EndWatcher {
  public:
    // `isDue` is called on the watcher's thread, one call at a time: after a watched process has ended, with
    // its pid, which may mean another process by then; and without one when the moment has come.
    explicit EndWatcher(std::function<void(std::optional<pid_t> ended)> isDue) : isDue_(std::move(isDue)) {}
    // Every descriptor that Watch returned must be gone.
    ~EndWatcher() { Stop(); }

    // Starts the thread unless it runs. ECANCELED after Stop. Any thread.
    std::error_code Start();
    // Watches the process as long as the returned descriptor, which owns the pidfd now, exists. Any thread.
    Result<std::shared_ptr<asio::posix::stream_descriptor>> Watch(UniqueFd pidfd, pid_t pid);
    // Replaces the moment; absent for none. Any thread.
    void WakeAt(std::optional<std::chrono::steady_clock::time_point> moment);
    // Ends the thread for good. Any thread but its own.
    void Stop();

  private:
    void OnDue(const std::error_code& aborted, std::optional<pid_t> ended);

    const std::function<void(std::optional<pid_t>)> isDue_;
    asio::io_context context_{1};
    const asio::executor_work_guard<asio::io_context::executor_type> runsWithoutWork_{
        context_.get_executor()};

    std::mutex mutex_;  // guards what follows
    asio::steady_timer timer_{context_};
    std::thread thread_;
    bool isStopped_ = false;
};

}  // namespace KITE::Linux
