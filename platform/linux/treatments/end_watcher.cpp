#include "treatments/end_watcher.h"

#include <cerrno>

#include "runtime/guard.h"

namespace KITE::Linux {

std::error_code EndWatcher::Start() {
    const std::lock_guard lock(mutex_);
    if (isStopped_) {
        return ErrorOf(ECANCELED);
    }
    try {
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { context_.run(); });
        }
    } catch (const std::system_error& failure) {
        return failure.code();
    }
    return {};
}

Result<std::shared_ptr<asio::posix::stream_descriptor>> EndWatcher::Watch(UniqueFd pidfd, pid_t pid) {
    auto descriptor = std::make_shared<asio::posix::stream_descriptor>(context_);
    std::error_code error;
    descriptor->assign(pidfd.Get(), error);
    if (error) {
        return Failure("its end cannot be watched", error);
    }
    static_cast<void>(pidfd.Release());
    descriptor->async_wait(asio::posix::stream_descriptor::wait_read,
                           [this, pid](const std::error_code& aborted) { OnDue(aborted, pid); });
    return descriptor;
}

void EndWatcher::WakeAt(std::optional<std::chrono::steady_clock::time_point> moment) {
    const std::lock_guard lock(mutex_);
    timer_.cancel();
    if (moment) {
        timer_.expires_at(*moment);
        timer_.async_wait([this](const std::error_code& aborted) { OnDue(aborted, std::nullopt); });
    }
}

void EndWatcher::OnDue(const std::error_code& aborted, std::optional<pid_t> ended) {
    if (!aborted) {
        RunGuarded("what is due of a treatment", [&] { isDue_(ended); });
    }
}

void EndWatcher::Stop() {
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        isStopped_ = true;
        thread.swap(thread_);
    }
    context_.stop();
    if (thread.joinable()) {
        thread.join();
    }
}

}  // namespace KITE::Linux
