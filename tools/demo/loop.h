#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace KITE::Demo {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The one thread's event loop. It takes SIGINT, SIGTERM and SIGHUP as the wish to stop: from its construction
// on they end what it runs instead of the process. SIGPIPE is ignored, since a reader of our output that goes
// away must not keep us from clearing up.
class Loop {
  public:
    // Stops watching when it is destroyed.
    class Watch {
      public:
        Watch(sd_event* event, int fd, std::function<void()> ready);
        Watch(sd_event* event, milliseconds period, std::function<void()> due);
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;
        ~Watch() { sd_event_source_disable_unref(source_); }

      private:
        void Rearm() const;

        std::function<void()> call_;
        milliseconds period_{};
        sd_event_source* source_ = nullptr;
    };

    Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop();

    // Calls whenever the descriptor is readable; whenever the period has passed.
    std::unique_ptr<Watch> WhenReadable(int fd, std::function<void()> ready);
    std::unique_ptr<Watch> Every(milliseconds period, std::function<void()> due);

    // Serves until the condition holds: true; or until it is time, or somebody wishes us to stop: false.
    bool RunUntil(const std::function<bool()>& isDone, milliseconds limit);
    // The same, deaf to the wish to stop: for clearing up, which has its own limits.
    bool RunToTheEnd(const std::function<bool()>& isDone, milliseconds limit);

    // The signal that asked us to stop; 0 when none did.
    int StopSignal() const { return stopSignal_; }
    sd_event* Get() const { return event_; }

  private:
    static int OnSignal(sd_event_source* source, const signalfd_siginfo* info, void* loop);

    sd_event* event_ = nullptr;
    int stopSignal_ = 0;
};

}  // namespace KITE::Demo
