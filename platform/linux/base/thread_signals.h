#pragma once

#include <csignal>

namespace KITE::Linux {

// Blocks signals on this thread while it lives. A thread that is started meanwhile inherits that: SIGTERM
// must reach the thread that waits for it. The signals of faults stay open, for a sanitizer to report them.
class SignalsBlocked {
  public:
    SignalsBlocked() noexcept {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
            sigdelset(&blocked, fault);
        }
        pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_{};
};

}  // namespace KITE::Linux
