#include "runtime/log/journal_log.h"

#include <endian.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <span>

#include "base/result.h"

namespace KITE::Linux {

namespace {

int PriorityOf(Log::Level level) {
    constexpr int kPriorities[] = {7, 6, 4, 3};
    return kPriorities[static_cast<int>(level)];
}

// The fields before the message's text. Names that come from the program are far shorter than the bound.
size_t FormatHeader(std::span<char> buffer, const LogLine& line) {
    const bool hasSeveralLines = line.text.find('\n') != std::string_view::npos;
    const int length = std::snprintf(
        buffer.data(), buffer.size(),
        "PRIORITY=%d\nSYSLOG_IDENTIFIER=%.100s\nKITE_DOMAIN=0x%x\nCODE_FILE=%.100s\nCODE_FUNC=%.100s\n"
        "CODE_LINE=%d\nMESSAGE%c",
        PriorityOf(line.level), line.label.tag, line.label.domain, line.site.unit, line.site.function,
        line.site.line, hasSeveralLines ? '\n' : '=');
    auto size = static_cast<size_t>(length);
    if (hasSeveralLines) {
        // The protocol wants the length in front of such a value, since a line break ends any other.
        const uint64_t textLength = htole64(line.text.size());
        std::memcpy(buffer.data() + size, &textLength, sizeof(textLength));
        size += sizeof(textLength);
    }
    return size;
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
