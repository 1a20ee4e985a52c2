#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstdint>

#include "base/unique_fd.h"
#include "runtime/log/log_line.h"

namespace KITE::Linux {

// Sends lines to the journal in its native protocol: one datagram each, without waiting and without
// allocating. Any thread.
class JournalLog {
  public:
    // The path of the journal's socket, which may come and go.
    explicit JournalLog(const char* socketPath) noexcept;

    // False when there is no journal to take the line. A line that the journal has no room for is dropped;
    // the count of those is sent before the next line that it has room for.
    bool Send(const LogLine& line) noexcept;

  private:
    enum class Outcome { kSent, kFull, kNoJournal };

    Outcome SendDropNotice() noexcept;
    Outcome Transmit(const LogLine& line) noexcept;
    bool SendOnce(const msghdr& datagram) const noexcept;
    bool Connect() const noexcept;

    const UniqueFd socket_;
    sockaddr_un address_{};
    std::atomic<uint64_t> dropped_{0};
};

}  // namespace KITE::Linux
