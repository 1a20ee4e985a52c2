#include "demo/stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace KITE::Demo {

StopSignals::StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    signals_ = Linux::UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool StopSignals::Await(Tools::milliseconds limit) {
    return received_ != 0 || (Tools::AwaitReadable(Descriptor(), limit) && Received() != 0);
}

int StopSignals::Received() {
    signalfd_siginfo info{};
    if (received_ == 0 && read(Descriptor(), &info, sizeof(info)) == sizeof(info)) {
        received_ = static_cast<int>(info.ssi_signo);
    }
    return received_;
}

}  // namespace KITE::Demo
