#pragma once

#include "base/unique_fd.h"
#include "private_system/waiting.h"

namespace KITE::Demo {

// Takes SIGINT, SIGTERM and SIGHUP: from its construction on they ask us to stop, and end nothing by
// themselves. SIGPIPE is ignored, so that everything is cleared up also when the reader of our output has
// gone.
class StopSignals {
  public:
    StopSignals();

    // Readable when one has come.
    int Descriptor() const { return signals_.Get(); }
    // Waits for one. False when the time is over.
    bool Await(Tools::milliseconds limit);
    // The one that has come; 0 when none has.
    int Received();

  private:
    Linux::UniqueFd signals_;
    int received_ = 0;
};

}  // namespace KITE::Demo
