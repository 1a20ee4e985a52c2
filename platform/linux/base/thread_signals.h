#pragma once

#include <csignal>

namespace KITE::Linux {

// Blocks signals on this thread while it lives, so that a thread started meanwhile never takes one: SIGTERM
// must reach the thread that waits for it, whichever threads a library started before. The signals by which
// the processor reports a fault stay open, for a sanitizer to report them.
class SignalsBlocked {
  public:
    SignalsBlocked() noexcept;
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked();

  private:
    sigset_t before_;
};

}  // namespace KITE::Linux
