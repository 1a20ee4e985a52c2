#include "runtime/log/journal_log.h"

#include <endian.h>
#include <sys/uio.h>

#include <cstdio>
#include <cstring>
#include <iterator>

#include "base/result.h"

namespace KITE::Linux {

namespace {

// The fields before the message's text; names of the program are far shorter than their bound. The message's
// value has its length in front, since a line break would end one that has not.
size_t FormatHeader(std::span<char, 512> buffer, const LogLine& line) {
    constexpr int kPriorities[] = {7, 6, 4, 3};
    const int length = std::snprintf(buffer.data(), buffer.size(),
                                     "PRIORITY=%d\nSYSLOG_IDENTIFIER=%.100s\nKITE_DOMAIN=0x%x\n"
                                     "CODE_FILE=%.100s\nCODE_FUNC=%.100s\nCODE_LINE=%d\nMESSAGE\n",
                                     kPriorities[static_cast<int>(line.level)], line.label.tag,
                                     line.label.domain, line.site.unit, line.site.function, line.site.line);
    return static_cast<size_t>(length);
}

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

std::error_code JournalLog::Send(const LogLine& line) noexcept {
    std::error_code error;
    if (const uint64_t count = dropped_.exchange(0); count != 0) {
        char text[256];
        error = SendDatagram(DropNotice(text, count));
        dropped_ += error ? count : 0;
    }
    if (!error) {
        error = SendDatagram(line);
    }
    if (Is(error, EAGAIN) || Is(error, ENOBUFS) || Is(error, ENOMEM)) {
        ++dropped_;
        return {};
    }
    return error;
}

// The socket stays connected: a send that looks up the path each time misses the goal of a log line by far.
std::error_code JournalLog::SendDatagram(const LogLine& line) noexcept {
    char header[512];
    char end = '\n';
    uint64_t length = htole64(line.text.size());
    iovec parts[] = {{header, FormatHeader(header, line)},
                     {&length, sizeof(length)},
                     {const_cast<char*>(line.text.data()), line.text.size()},
                     {&end, sizeof(end)}};
    msghdr datagram{};
    datagram.msg_iov = parts;
    datagram.msg_iovlen = std::size(parts);
    const auto send = [&] { return sendmsg(socket_.Get(), &datagram, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0; };
    const auto* address = reinterpret_cast<const sockaddr*>(&address_);
    const bool isSent =
        send() || (IsUnconnected(errno) && connect(socket_.Get(), address, sizeof(address_)) == 0 && send());
    return isSent ? std::error_code() : LastError();
}

}  // namespace KITE::Linux
