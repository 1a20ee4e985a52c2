#include "runtime/log/journal_log.h"

#include <endian.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <span>

#include "base/result.h"

namespace KITE::Linux {

namespace {

uint32_t PriorityOf(Log::Level level) {
    constexpr uint32_t kPriorities[] = {7, 6, 4, 3};
    return kPriorities[static_cast<int>(level)];
}

// The fields before the message's text. Names that come from the program are far shorter than the bound. Put
// together by hand, since snprintf would make a line a third dearer.
size_t FormatHeader(std::span<char, 512> buffer, const LogLine& line) {
    constexpr size_t kMaxName = 100;
    char* end = buffer.data();
    const auto add = [&](std::string_view text) { end = std::ranges::copy(text, end).out; };
    const auto addName = [&](std::string_view name) { add(name.substr(0, kMaxName)); };
    const auto addNumber = [&](uint32_t number, int base) {
        end = std::to_chars(end, buffer.data() + buffer.size(), number, base).ptr;
    };
    add("PRIORITY=");
    addNumber(PriorityOf(line.level), 10);
    add("\nSYSLOG_IDENTIFIER=");
    addName(line.label.tag);
    add("\nKITE_DOMAIN=0x");
    addNumber(line.label.domain, 16);
    add("\nCODE_FILE=");
    addName(line.site.unit);
    add("\nCODE_FUNC=");
    addName(line.site.function);
    add("\nCODE_LINE=");
    addNumber(static_cast<uint32_t>(line.site.line), 10);
    if (line.text.find('\n') == std::string_view::npos) {
        add("\nMESSAGE=");
    } else {
        // A line break ends a value, so a value with one has its length in front instead.
        const uint64_t length = htole64(line.text.size());
        add("\nMESSAGE\n");
        add({reinterpret_cast<const char*>(&length), sizeof(length)});
    }
    return static_cast<size_t>(end - buffer.data());
}

// Whether the journal was not there before, or is another one by now.
bool IsUnconnected(int error) {
    return error == ENOTCONN || error == ECONNREFUSED || error == ECONNRESET;
}

bool IsFull(const std::error_code& error) {
    return Is(error, EAGAIN) || Is(error, ENOBUFS) || Is(error, ENOMEM);
}

}  // namespace

JournalLog::JournalLog(const char* socketPath) noexcept
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    address_.sun_family = AF_UNIX;
    std::strncpy(address_.sun_path, socketPath, sizeof(address_.sun_path) - 1);
}

std::error_code JournalLog::Send(const LogLine& line) noexcept {
    std::error_code error = SendDropNotice();
    if (!error) {
        error = SendDatagram(line);
    }
    if (IsFull(error)) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return {};
    }
    return error;
}

std::error_code JournalLog::SendDropNotice() noexcept {
    // Loading first is cheaper than exchanging, and nearly always enough.
    const uint64_t count = dropped_.load(std::memory_order_relaxed) == 0 ? 0 : dropped_.exchange(0);
    if (count == 0) {
        return {};
    }
    char text[256];
    const std::error_code error = SendDatagram(DropNotice(text, count));
    if (error) {
        dropped_.fetch_add(count, std::memory_order_relaxed);
    }
    return error;
}

// The socket stays connected: looking up the path for each line would cost a quarter more.
std::error_code JournalLog::SendDatagram(const LogLine& line) noexcept {
    char header[512];
    char end = '\n';
    iovec parts[] = {{header, FormatHeader(header, line)},
                     {const_cast<char*>(line.text.data()), line.text.size()},
                     {&end, sizeof(end)}};
    msghdr datagram{};
    datagram.msg_iov = parts;
    datagram.msg_iovlen = std::size(parts);
    const auto send = [&] { return sendmsg(socket_.Get(), &datagram, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0; };
    const auto* address = reinterpret_cast<const sockaddr*>(&address_);
    if (send() ||
        (IsUnconnected(errno) && connect(socket_.Get(), address, sizeof(address_)) == 0 && send())) {
        return {};
    }
    return LastError();
}

}  // namespace KITE::Linux
