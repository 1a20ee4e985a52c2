#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include "base/unique_fd.h"

namespace KITE::Benchmarks {

// A datagram socket at the journal's path, emptied by its owner outside of what is timed: what the journal
// does with a line is not the writer's cost. Only this process and those that it starts see it: it lies in a
// mount of their own, which goes with them. Needs root. One in a process, made while there is one thread.
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
