#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "base/nonblocking_writer.h"
#include "runtime/log/log_line.h"

namespace KITE::Linux {

// Writes lines to standard error, or another descriptor, as
//
//     2024-05-01T12:00:00.123Z I TAG: text
//
// with control characters escaped, so that no text passes for a line of its own. A line is queued, and a
// thread that starts with the first one writes it: a caller never waits for the reader. When a reader stalls
// until the queue is full, further lines are dropped, and their count is written in their place.
class StderrLog {
  public:
    static constexpr size_t kMaxLines = 4096;
    static constexpr size_t kMaxBytes = size_t{4} << 20;

    // The descriptor stays the caller's.
    explicit StderrLog(int fd);
    ~StderrLog() { Stop(); }

    // Any thread. Throws only for want of memory.
    void Write(const LogLine& line);

    // Ends the thread once the queue is empty, or after a second if the reader has not taken all of it. Later
    // lines are written by their callers, as far as that needs no waiting; the rest stays queued.
    void Stop();

  private:
    enum class Mode { kIdle, kThreaded, kDirect };

    void StartThread();
    void Run();
    bool TakeBatch();
    bool WriteBatch(std::chrono::steady_clock::time_point deadline);
    void WriteDirectly();

    // What is written now, and how. The thread's while there is one, then guarded by mutex_.
    NonblockingWriter writer_;
    std::string batch_;

    std::mutex mutex_;  // guards what follows; held across no write that could wait
    std::condition_variable wake_;
    Mode mode_ = Mode::kIdle;
    std::string queue_;
    size_t queuedLines_ = 0;
    uint64_t dropped_ = 0;
    std::optional<std::chrono::steady_clock::time_point> stopTime_;  // when the thread ends at the latest
    std::thread thread_;
};

}  // namespace KITE::Linux
