#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "base/unique_fd.h"

namespace KITE::Linux {

// One thread that waits for processes to end and for a moment to come. It starts with the first process.
class EndWatcher {
  public:
    // Called on the watcher's thread, one at a time: `exited` at least once after a watched process ended,
    // with the pid it was watched by, which may mean another process by then; `timeUp` when the moment came.
    EndWatcher(std::function<void(pid_t)> exited, std::function<void()> timeUp);
    ~EndWatcher();
    EndWatcher(const EndWatcher&) = delete;
    EndWatcher& operator=(const EndWatcher&) = delete;

    // Watches until the process has ended or its descriptor is closed. 0 or an error number. Any thread.
    int Watch(int pidfd, pid_t pid);
    // Replaces the moment; nothing takes it back. Any thread.
    void WakeAt(std::optional<std::chrono::steady_clock::time_point> moment);
    // Ends the thread for good. Any thread but its own.
    void Stop();

  private:
    int Start();
    void Run();

    const std::function<void(pid_t)> exited_;
    const std::function<void()> timeUp_;
    const UniqueFd epoll_;
    const UniqueFd timer_;
    const UniqueFd stop_;

    std::mutex mutex_;  // guards what follows
    std::thread thread_;
    bool stopped_ = false;
};

}  // namespace KITE::Linux
