#include "treatments/end_watcher.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "runtime/guard.h"

namespace KITE::Linux {

namespace {

// What an event belongs to, next to the pids.
constexpr uint64_t kTimerToken = UINT64_MAX;
constexpr uint64_t kStopToken = UINT64_MAX - 1;

int AddTo(const UniqueFd& epoll, int fd, uint32_t events, uint64_t token) {
    epoll_event event{.events = events, .data = {.u64 = token}};
    return epoll_ctl(epoll.Get(), EPOLL_CTL_ADD, fd, &event) == 0 || errno == EEXIST ? 0 : errno;
}

itimerspec TimerOf(std::optional<std::chrono::steady_clock::time_point> moment) {
    using std::chrono::nanoseconds;
    constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
    itimerspec timer{};
    if (moment) {
        // Zero would disarm the timer.
        const int64_t due = std::max<int64_t>(1, nanoseconds(moment->time_since_epoch()).count());
        timer.it_value = {due / kNanosecondsPerSecond, due % kNanosecondsPerSecond};
    }
    return timer;
}

}  // namespace

EndWatcher::EndWatcher(std::function<void(pid_t)> exited, std::function<void()> timeUp)
    : exited_(std::move(exited)),
      timeUp_(std::move(timeUp)),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      timer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

EndWatcher::~EndWatcher() {
    Stop();
}

int EndWatcher::Start() {
    const std::lock_guard lock(mutex_);
    if (stopped_) {
        return ECANCELED;
    }
    if (thread_.joinable()) {
        return 0;
    }
    if (!epoll_ || !timer_ || !stop_) {
        return EMFILE;
    }
    const int error = AddTo(epoll_, timer_.Get(), EPOLLIN, kTimerToken);
    if (error != 0 || AddTo(epoll_, stop_.Get(), EPOLLIN, kStopToken) != 0) {
        return error != 0 ? error : ENOMEM;
    }
    try {
        thread_ = std::thread([this] { Run(); });
    } catch (const std::system_error& failure) {
        return failure.code().value();
    }
    return 0;
}

int EndWatcher::Watch(int pidfd, pid_t pid) {
    const int error = Start();
    // The descriptor of an ended process stays readable: one event is enough.
    return error != 0 ? error : AddTo(epoll_, pidfd, EPOLLIN | EPOLLONESHOT, static_cast<uint64_t>(pid));
}

void EndWatcher::WakeAt(std::optional<std::chrono::steady_clock::time_point> moment) {
    const itimerspec timer = TimerOf(moment);
    timerfd_settime(timer_.Get(), TFD_TIMER_ABSTIME, &timer, nullptr);
}

void EndWatcher::Stop() {
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
        thread.swap(thread_);
    }
    if (thread.joinable()) {
        eventfd_write(stop_.Get(), 1);
        thread.join();
    }
}

void EndWatcher::Run() {
    std::array<epoll_event, 16> events;
    while (true) {
        const int count = epoll_wait(epoll_.Get(), events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) {
            const uint64_t token = events[static_cast<size_t>(i)].data.u64;
            if (token == kStopToken) {
                return;
            }
            if (token == kTimerToken) {
                uint64_t expirations = 0;
                if (read(timer_.Get(), &expirations, sizeof(expirations)) > 0) {
                    RunGuarded("what is due of a treatment", timeUp_);
                }
            } else {
                RunGuarded("the end of a process", [&] { exited_(static_cast<pid_t>(token)); });
            }
        }
    }
}

}  // namespace KITE::Linux
