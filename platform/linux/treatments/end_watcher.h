#pragma once

#include <sys/types.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
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
    // Called on the watcher's thread, one at a time: `ended` after a watched process has ended, with its pid,
    // which may mean another process by then; `timeUp` when the moment has come.
    EndWatcher(std::function<void(pid_t)> ended, std::function<void()> timeUp);
    // Every descriptor that Watch returned must be gone.
    ~EndWatcher();
    EndWatcher(const EndWatcher&) = delete;
    EndWatcher& operator=(const EndWatcher&) = delete;

    // Starts the thread unless it runs. ECANCELED after Stop. Any thread.
    std::error_code Start();
    // Watches the process of the pidfd as long as the returned descriptor exists, which owns it now. Its end
    // is told when the thread runs. Any thread.
    Result<asio::posix::stream_descriptor> Watch(UniqueFd pidfd, pid_t pid);
    // Replaces the moment; absent for none. Any thread.
    void WakeAt(std::optional<std::chrono::steady_clock::time_point> moment);
    // Ends the thread for good. Any thread but its own.
    void Stop();

  private:
    const std::function<void(pid_t)> ended_;
    const std::function<void()> timeUp_;
    asio::io_context context_{1};
    const asio::executor_work_guard<asio::io_context::executor_type> runsWithoutWork_;

    std::mutex mutex_;  // guards what follows
    asio::steady_timer timer_{context_};
    std::thread thread_;
    bool isStopped_ = false;
};

}  // namespace KITE::Linux
