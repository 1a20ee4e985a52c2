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

void AppendEscaped(std::string& out, char byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    switch (byte) {
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out += "\\x";
            out += kDigits[static_cast<unsigned char>(byte) >> 4];
            out += kDigits[byte & 0xF];
    }
}

void AppendText(std::string& out, std::string_view text) {
    for (const char byte : text) {
        const auto code = static_cast<unsigned char>(byte);
        if (code < 0x20 || code == 0x7F) {
            AppendEscaped(out, byte);
        } else {
            out += byte;
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
    AppendText(out, line.text);
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

// What is written leaves the queue; lines dropped before that belong right behind it.
void StderrLog::WriteDirectly() {
    std::string_view left = pending_;
    ssize_t written = 0;
    do {
        written = writer_.Write(left);
        left.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    } while (written > 0 && !left.empty());
    if (left.empty() || (written < 0 && written != -EAGAIN)) {
        pending_.clear();
        pendingLines_ = 0;
        if (TakeDropNotice()) {
            WriteDirectly();
        }
    } else {
        pending_.erase(0, pending_.size() - left.size());
    }
}

bool StderrLog::TakeDropNotice() {
    if (dropped_ == 0) {
        return false;
    }
    char text[256];
    AppendLine(pending_, DropNotice(text, std::exchange(dropped_, 0)));
    ++pendingLines_;
    return true;
}

void StderrLog::Run() {
    std::string batch;
    while (TakeBatch(batch)) {
        std::string_view left = batch;
        if (!WriteBatch(left)) {
            const std::lock_guard lock(mutex_);
            pending_.insert(0, left);
            return;
        }
    }
}

// Waits for lines; false when there are none left and none will follow.
bool StderrLog::TakeBatch(std::string& batch) {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return !pending_.empty() || mode_ == Mode::kStopping; });
    TakeDropNotice();
    batch = std::exchange(pending_, {});
    pendingLines_ = 0;
    return !batch.empty();
}

// False when the time to stop came first; `batch` is then what is left of it. Lines that nobody will ever
// read are forgotten.
bool StderrLog::WriteBatch(std::string_view& batch) {
    while (!batch.empty()) {
        const ssize_t written = writer_.Write(batch);
        if (written >= 0) {
            batch.remove_prefix(static_cast<size_t>(written));
        } else if (written == -EAGAIN) {
            if (!WaitUntilWritable()) {
                return false;
            }
        } else if (written != -EINTR) {
            return true;
        }
    }
    return true;
}

// False when the time to stop has come.
bool StderrLog::WaitUntilWritable() {
    pollfd waiting[] = {{fd_, POLLOUT, 0}, {stopEvent_.Get(), POLLIN, 0}};
    poll(waiting, std::size(waiting), -1);
    if (waiting[1].revents == 0) {
        return true;
    }
    using std::chrono::ceil, std::chrono::milliseconds;
    const auto left = ceil<milliseconds>(Deadline() - std::chrono::steady_clock::now());
    return left > milliseconds::zero() && poll(waiting, 1, static_cast<int>(left.count())) != 0;
}

std::chrono::steady_clock::time_point StderrLog::Deadline() {
    const std::lock_guard lock(mutex_);
    return deadline_;
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
