#include "ipc/worker.h"

#include <utility>

#include "runtime/guard.h"

namespace KITE::Linux {

void Worker::Start() {
    const std::lock_guard lock(mutex_);
    if (!thread_.joinable()) {
        stopped_ = false;
        thread_ = std::thread([this] { Run(); });
    }
}

bool Worker::Submit(std::function<void()> job) {
    {
        const std::lock_guard lock(mutex_);
        if (stopped_) {
            return false;
        }
        jobs_.push_back(std::move(job));
    }
    changed_.notify_one();
    return true;
}

void Worker::Stop() {
    std::deque<std::function<void()>> dropped;
    std::thread ending;
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
        dropped.swap(jobs_);
        ending.swap(thread_);
    }
    changed_.notify_one();
    if (ending.joinable()) {
        ending.join();
    }
}

void Worker::Run() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return stopped_ || !jobs_.empty(); });
        if (stopped_) {
            return;
        }
        std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        RunGuarded("a job of the ipc room", job);
        job = nullptr;
        lock.lock();
    }
}

}  // namespace KITE::Linux
