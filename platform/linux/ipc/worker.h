#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace KITE::Linux {

// One thread that runs jobs in the order in which they were submitted.
class Worker {
  public:
    Worker() = default;
    ~Worker() { Stop(); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Starts the thread; also again, after Stop.
    void Start();
    // False, with the job dropped, when the thread is not started. Any thread.
    bool Submit(std::function<void()> job);
    // Waits for the job that runs, drops the others and ends the thread. Idempotent. Not on the worker's own
    // thread.
    void Stop();

  private:
    void Run();

    std::mutex mutex_;  // guards all below
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
    std::thread thread_;
    bool stopped_ = true;
};

}  // namespace KITE::Linux
