#include "runtime/log/stderr_log.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <utility>

#include "base/thread_signals.h"

namespace KITE::Linux {

namespace {

constexpr std::chrono::seconds kReaderPatience{1};

void AppendTime(std::string& out) {
    timespec now{};
    tm parts{};
    char text[80];
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &parts);
    const int length = std::snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ",
                                     parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                                     parts.tm_min, parts.tm_sec, now.tv_nsec / 1000000);
    out.append(text, static_cast<size_t>(length));
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
    out += ' ';
    out += "DIWE"[static_cast<int>(line.level)];
    out += ' ';
    out += line.label.tag;
    out += ": ";
    AppendEscaped(out, line.text);
    out += '\n';
}

}  // namespace

StderrLog::StderrLog(int fd)
    : fd_(fd),
      stopEvent_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      writer_(fd, NonblockingWriter::Doubtful::kWrite) {}

void StderrLog::Write(const LogLine& line) {
    std::unique_lock lock(mutex_);
    if (mode_ == Mode::kIdle) {
        StartThread();
    }
    const bool wakesThread = Enqueue(line) && mode_ == Mode::kThreaded;
    if (wakesThread) {
        // The thread often runs at once in the caller's place, and would only find the mutex taken.
        lock.unlock();
        wake_.notify_one();
    } else if (mode_ == Mode::kDirect) {
        WriteDirectly();
    }
}

// True when the queue was empty before.
bool StderrLog::Enqueue(const LogLine& line) {
    if (pendingLines_ >= kMaxLines || pending_.size() >= kMaxBytes) {
        ++dropped_;
        return false;
    }
    AppendLine(pending_, line);
    return pendingLines_++ == 0;
}

// Queues the notice of the lines that were dropped since the last one, if there are any.
bool StderrLog::EnqueueDropNotice() {
    if (dropped_ == 0) {
        return false;
    }
    char text[256];
    AppendLine(pending_, DropNotice(text, std::exchange(dropped_, 0)));
    ++pendingLines_;
    return true;
}

void StderrLog::StartThread() {
    mode_ = Mode::kDirect;
    if (!stopEvent_) {
        return;
    }
    const SignalsBlocked blocked;
    try {
        thread_ = std::thread([this] { Run(); });
        mode_ = Mode::kThreaded;
    } catch (const std::system_error&) {
        // Without a thread the callers write, as far as that needs no waiting.
    }
}

void StderrLog::Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return !pending_.empty() || mode_ == Mode::kStopping; });
        EnqueueDropNotice();
        if (pending_.empty()) {
            return;
        }
        const std::string batch = std::exchange(pending_, {});
        pendingLines_ = 0;
        lock.unlock();
        const std::string_view unwritten = WriteBatch(batch);
        lock.lock();
        if (!unwritten.empty()) {
            pending_.insert(0, unwritten);
            return;
        }
    }
}

// Returns what could not be written before the time to stop.
std::string_view StderrLog::WriteBatch(std::string_view batch) {
    while (Is(WriteSome(batch), EAGAIN)) {
        if (!WaitUntilWritable()) {
            return batch;
        }
    }
    return {};
}

// Takes off the text what was written, which is all of it or what needs no waiting. Another error than EAGAIN
// means that no reader will ever take the rest.
std::error_code StderrLog::WriteSome(std::string_view& text) {
    while (!text.empty()) {
        const Result<size_t> written = writer_.Write(text);
        if (!written) {
            return written.Code();
        }
        text.remove_prefix(*written);
    }
    return {};
}

// False when the time to stop has come.
bool StderrLog::WaitUntilWritable() {
    pollfd waiting[] = {{fd_, POLLOUT, 0}, {stopEvent_.Get(), POLLIN, 0}};
    poll(waiting, std::size(waiting), -1);
    if (waiting[1].revents == 0) {
        return true;
    }
    using std::chrono::ceil, std::chrono::milliseconds;
    std::unique_lock lock(mutex_);
    const auto left = ceil<milliseconds>(deadline_ - std::chrono::steady_clock::now());
    lock.unlock();
    return left > milliseconds::zero() && poll(waiting, 1, static_cast<int>(left.count())) != 0;
}

// The notice of dropped lines comes behind all lines that were queued before them, so it is not queued while
// the reader stalls: each further line that is dropped would make a notice of its own.
void StderrLog::WriteDirectly() {
    do {
        std::string_view left = pending_;
        if (Is(WriteSome(left), EAGAIN)) {
            pending_.erase(0, pending_.size() - left.size());
            return;
        }
        pending_.clear();
        pendingLines_ = 0;
    } while (EnqueueDropNotice());
}

void StderrLog::Stop() {
    std::thread ending;
    {
        const std::lock_guard lock(mutex_);
        if (mode_ != Mode::kThreaded) {
            return;
        }
        mode_ = Mode::kStopping;
        deadline_ = std::chrono::steady_clock::now() + kReaderPatience;
        ending = std::move(thread_);
        wake_.notify_one();
    }
    eventfd_write(stopEvent_.Get(), 1);
    ending.join();
    const std::lock_guard lock(mutex_);
    mode_ = Mode::kDirect;
    WriteDirectly();
}

}  // namespace KITE::Linux
