#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstdint>
#include <system_error>

#include "base/unique_fd.h"
#include "runtime/log/log_line.h"

namespace KITE::Linux {

// Sends lines to the journal by its datagrams, without waiting and without allocating. Any thread.
class JournalLog {
  public:
    // The path of the journal's socket, which may come and go.
    explicit JournalLog(const char* socketPath) noexcept;

    // An error means that there is no journal to take the line. A line that the journal has no room for is
    // dropped, which is no error; the count of those is sent before the next line that it has room for.
    std::error_code Send(const LogLine& line) noexcept;

  private:
    std::error_code SendDatagram(const LogLine& line) noexcept;

    const UniqueFd socket_;
    sockaddr_un address_{};
    std::atomic<uint64_t> dropped_{0};
};

}  // namespace KITE::Linux
