#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include "base/unique_fd.h"

namespace KITE::Benchmarks {

// A datagram socket at the journal's path. Its owner empties it outside of the timed part: the journal's work
// is not the writer's cost. Only this process and its children see the socket: it lies in a mount of their
// own, which ends with them. Needs root. A process makes one, while it has one thread.
class JournalStandIn {
  public:
    // Lines that wait before a sender is turned away; where a journal runs, the limit is this too.
    static constexpr int kCapacity = 512;
    // Lines for which a sender's buffer has room; that limit comes first.
    static constexpr int kBatch = 100;

    // Throws when the mount or the socket cannot be made.
    JournalStandIn();

    // Takes all lines that wait, without waiting for more; their number.
    int Drain();
    // A socket that sends to this one, as the log's own does.
    Linux::UniqueFd Connect() const;

  private:
    sockaddr_un address_{};
    Linux::UniqueFd receiver_;
};

}  // namespace KITE::Benchmarks
