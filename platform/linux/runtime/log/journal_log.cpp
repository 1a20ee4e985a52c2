#include "runtime/log/journal_log.h"

#include <endian.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace KITE::Linux {

namespace {

// The fields before the message. Names that come from the program are far shorter than what they may take.
class Header {
  public:
    explicit Header(const LogLine& line) {
        Add("PRIORITY=");
        Add(PriorityOf(line.level));
        Add("\nSYSLOG_IDENTIFIER=");
        AddName(line.label.tag);
        Add("\nKITE_DOMAIN=0x");
        AddNumber(line.label.domain, 16);
        Add("\nCODE_FILE=");
        AddName(line.site.unit);
        Add("\nCODE_FUNC=");
        AddName(line.site.function);
        Add("\nCODE_LINE=");
        AddNumber(static_cast<uint32_t>(line.site.line), 10);
        // A value of several lines has its length in front.
        if (line.text.find('\n') == std::string_view::npos) {
            Add("\nMESSAGE=");
        } else {
            const uint64_t length = htole64(line.text.size());
            Add("\nMESSAGE\n");
            Add({reinterpret_cast<const char*>(&length), sizeof(length)});
        }
    }

    char* Data() noexcept { return data_; }
    size_t Size() const noexcept { return size_; }

  private:
    static constexpr size_t kMaxName = 100;

    static std::string_view PriorityOf(Log::Level level) {
        switch (level) {
            case Log::Level::kDebug:
                return "7";
            case Log::Level::kInfo:
                return "6";
            case Log::Level::kWarning:
                return "4";
            default:
                return "3";
        }
    }

    void Add(std::string_view text) {
        std::memcpy(data_ + size_, text.data(), text.size());
        size_ += text.size();
    }
    void AddName(std::string_view name) { Add(name.substr(0, kMaxName)); }
    void AddNumber(uint32_t number, int base) {
        size_ = static_cast<size_t>(std::to_chars(data_ + size_, std::end(data_), number, base).ptr - data_);
    }

    char data_[512];
    size_t size_ = 0;
};

// Whether the journal was not there before, or is another one by now.
bool IsUnconnected(int error) {
    return error == ENOTCONN || error == ECONNREFUSED || error == ECONNRESET;
}

}  // namespace

JournalLog::JournalLog(const char* socketPath) noexcept
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    address_.sun_family = AF_UNIX;
    std::strncpy(address_.sun_path, socketPath, sizeof(address_.sun_path) - 1);
}

bool JournalLog::Send(const LogLine& line) noexcept {
    Outcome outcome = SendDropNotice();
    if (outcome == Outcome::kSent) {
        outcome = Transmit(line);
    }
    if (outcome == Outcome::kFull) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
    }
    return outcome != Outcome::kNoJournal;
}

JournalLog::Outcome JournalLog::SendDropNotice() noexcept {
    if (dropped_.load(std::memory_order_relaxed) == 0) {
        return Outcome::kSent;
    }
    const uint64_t count = dropped_.exchange(0, std::memory_order_relaxed);
    if (count == 0) {
        return Outcome::kSent;
    }
    char text[256];
    const Outcome outcome = Transmit(DropNotice(text, count));
    if (outcome != Outcome::kSent) {
        dropped_.fetch_add(count, std::memory_order_relaxed);
    }
    return outcome;
}

// Sending on a connected socket saves looking up the path for each line, a quarter of the cost.
JournalLog::Outcome JournalLog::Transmit(const LogLine& line) noexcept {
    Header header(line);
    char end = '\n';
    iovec parts[] = {{header.Data(), header.Size()},
                     {const_cast<char*>(line.text.data()), line.text.size()},
                     {&end, sizeof(end)}};
    msghdr datagram{};
    datagram.msg_iov = parts;
    datagram.msg_iovlen = std::size(parts);
    if (SendOnce(datagram) || (IsUnconnected(errno) && Connect() && SendOnce(datagram))) {
        return Outcome::kSent;
    }
    const bool isFull = errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM;
    return isFull ? Outcome::kFull : Outcome::kNoJournal;
}

bool JournalLog::SendOnce(const msghdr& datagram) const noexcept {
    return sendmsg(socket_.Get(), &datagram, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

bool JournalLog::Connect() const noexcept {
    return connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) == 0;
}

}  // namespace KITE::Linux
