#include "demo/loop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <utility>

namespace KITE::Demo {

namespace {

constexpr std::array<int, 3> kStopSignals{SIGINT, SIGTERM, SIGHUP};

uint64_t Microseconds(Clock::duration time) {
    const auto count = std::chrono::duration_cast<std::chrono::microseconds>(time).count();
    return count > 0 ? static_cast<uint64_t>(count) : 0;
}

}  // namespace

Loop::Watch::Watch(sd_event* event, int fd, std::function<void()> ready) : call_(std::move(ready)) {
    const auto handler = [](sd_event_source*, int, uint32_t, void* self) {
        static_cast<Watch*>(self)->call_();
        return 0;
    };
    sd_event_add_io(event, &source_, fd, EPOLLIN, handler, this);
}

Loop::Watch::Watch(sd_event* event, milliseconds period, std::function<void()> due)
    : call_(std::move(due)), period_(period) {
    const auto handler = [](sd_event_source*, uint64_t, void* self) {
        static_cast<Watch*>(self)->Rearm();
        static_cast<Watch*>(self)->call_();
        return 0;
    };
    sd_event_add_time_relative(event, &source_, CLOCK_MONOTONIC, Microseconds(period_), 1, handler, this);
}

void Loop::Watch::Rearm() const {
    sd_event_source_set_time_relative(source_, Microseconds(period_));
    sd_event_source_set_enabled(source_, SD_EVENT_ONESHOT);
}

Loop::Loop() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (const int signal : kStopSignals) {
        sigaddset(&stopSignals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    sd_event_new(&event_);
    for (const int signal : kStopSignals) {
        sd_event_add_signal(event_, nullptr, signal, &Loop::OnSignal, this);
    }
}

Loop::~Loop() {
    sd_event_unref(event_);
}

int Loop::OnSignal(sd_event_source*, const signalfd_siginfo* info, void* loop) {
    static_cast<Loop*>(loop)->stopSignal_ = static_cast<int>(info->ssi_signo);
    return 0;
}

std::unique_ptr<Loop::Watch> Loop::WhenReadable(int fd, std::function<void()> ready) {
    return std::make_unique<Watch>(event_, fd, std::move(ready));
}

std::unique_ptr<Loop::Watch> Loop::Every(milliseconds period, std::function<void()> due) {
    return std::make_unique<Watch>(event_, period, std::move(due));
}

bool Loop::RunUntil(const std::function<bool()>& isDone, milliseconds limit) {
    bool isReached = false;
    RunToTheEnd([&] { return stopSignal_ != 0 || (isReached = isDone()); }, limit);
    return isReached;
}

bool Loop::RunToTheEnd(const std::function<bool()>& isDone, milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    while (!isDone()) {
        const Clock::duration left = end - Clock::now();
        if (left <= Clock::duration::zero() || sd_event_run(event_, Microseconds(left)) < 0) {
            return false;
        }
    }
    return true;
}

}  // namespace KITE::Demo
