#include "runtime/log/stderr_log.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <utility>

#include "base/thread_signals.h"

namespace KITE::Linux {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kReaderPatience{1};
// How long the thread waits for a reader until it looks again whether it is to stop.
constexpr std::chrono::milliseconds kStopLatency{100};

void AppendTime(std::string& out) {
    timespec now{};
    tm parts{};
    char text[32];
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &parts);
    out.append(text, std::strftime(text, sizeof(text), "%FT%T", &parts));
    std::snprintf(text, sizeof(text), ".%03ldZ", now.tv_nsec / 1000000);
    out += text;
}

// So that no text passes for a line of its own or moves the cursor of a terminal.
void AppendEscaped(std::string& out, std::string_view text) {
    for (const char byte : text) {
        const auto code = static_cast<unsigned char>(byte);
        if (code >= 0x20 && code != 0x7F) {
            out += byte;
        } else if (byte == '\n') {
            out += "\\n";
        } else {
            char escape[5];
            std::snprintf(escape, sizeof(escape), "\\x%02x", unsigned{code});
            out += escape;
        }
    }
}

void AppendLine(std::string& out, const LogLine& line) {
    AppendTime(out);
    out.append({' ', "DIWE"[static_cast<int>(line.level)], ' '}).append(line.label.tag).append(": ");
    AppendEscaped(out, line.text);
    out += '\n';
}

}  // namespace

StderrLog::StderrLog(int fd) : writer_(fd, NonblockingWriter::Doubtful::kWrite) {}

void StderrLog::Write(const LogLine& line) {
    const std::lock_guard lock(mutex_);
    if (mode_ == Mode::kIdle) {
        StartThread();
    }
    if (queuedLines_ >= kMaxLines || queue_.size() >= kMaxBytes) {
        ++dropped_;
    } else {
        AppendLine(queue_, line);
        ++queuedLines_;
    }
    if (mode_ == Mode::kThreaded) {
        wake_.notify_one();
    } else {
        WriteDirectly();
    }
}

// Without a thread the callers write, as far as that needs no waiting.
void StderrLog::StartThread() {
    const SignalsBlocked blocked;
    try {
        thread_ = std::thread([this] { Run(); });
        mode_ = Mode::kThreaded;
    } catch (const std::system_error&) {
        mode_ = Mode::kDirect;
    }
}

void StderrLog::Run() {
    std::unique_lock lock(mutex_);
    do {
        wake_.wait(lock, [this] { return stopTime_ || queuedLines_ != 0 || !batch_.empty(); });
        if (!TakeBatch()) {
            return;
        }
        const auto deadline = steady_clock::now() + kStopLatency;
        const auto until = stopTime_ ? std::min(*stopTime_, deadline) : deadline;
        lock.unlock();
        WriteBatch(until);
        lock.lock();
    } while (!stopTime_ || steady_clock::now() < *stopTime_);
}

// Takes what is queued and the count of the dropped once the last batch is written. False if that is nothing.
bool StderrLog::TakeBatch() {
    if (batch_.empty()) {
        batch_.swap(queue_);
        queuedLines_ = 0;
        if (dropped_ != 0) {
            char text[256];
            AppendLine(batch_, DropNotice(text, std::exchange(dropped_, 0)));
        }
    }
    return !batch_.empty();
}

// False when the time is over before all is written. After another error no reader will ever take the rest.
bool StderrLog::WriteBatch(steady_clock::time_point deadline) {
    std::string_view rest = batch_;
    const bool isLate = Is(writer_.WriteUntil(deadline, rest), ETIMEDOUT);
    batch_.erase(0, isLate ? batch_.size() - rest.size() : std::string::npos);
    return !isLate;
}

void StderrLog::WriteDirectly() {
    while (TakeBatch() && WriteBatch(steady_clock::now())) {
    }
}

void StderrLog::Stop() {
    std::thread ending;
    {
        const std::lock_guard lock(mutex_);
        if (mode_ != Mode::kThreaded) {
            return;
        }
        stopTime_ = steady_clock::now() + kReaderPatience;
        wake_.notify_one();
        ending.swap(thread_);
    }
    if (ending.joinable()) {
        ending.join();
        const std::lock_guard lock(mutex_);
        mode_ = Mode::kDirect;
        WriteDirectly();
    }
}

}  // namespace KITE::Linux
