#include "sleepers.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <utility>

#include "descriptor_limit.h"

namespace KITE::Benchmarks {

namespace {

[[noreturn]] void Sleep(pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (getppid() == parent) {
        pause();
    }
    _exit(0);
}

}  // namespace

Sleepers::Sleepers(size_t count) {
    RaiseDescriptorLimit();
    while (pids_.size() < count && AddOne()) {
    }
}

Sleepers::~Sleepers() {
    for (const Linux::UniqueFd& handle : handles_) {
        syscall(SYS_pidfd_send_signal, handle.Get(), SIGKILL, nullptr, 0);
        waitid(P_PIDFD, static_cast<id_t>(handle.Get()), nullptr, WEXITED);
    }
}

// Only this object reaps the child, so its pid does not pass to another process.
bool Sleepers::AddOne() {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        Sleep(parent);
    }
    Linux::UniqueFd handle(pid < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!handle) {
        return false;
    }
    pids_.push_back(pid);
    handles_.push_back(std::move(handle));
    return true;
}

}  // namespace KITE::Benchmarks
