#include "private_system/child_process.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "base/result.h"
#include "private_system/pipe.h"
#include "proc/pidfd.h"

namespace KITE::Tools {

namespace {

using Linux::UniqueFd;

std::vector<char*> PointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

pid_t Fork(pid_t wanted) {
    if (wanted == 0) {
        return fork();
    }
    clone_args how{};
    how.exit_signal = SIGCHLD;
    how.set_tid = reinterpret_cast<uint64_t>(&wanted);
    how.set_tid_size = 1;
    return static_cast<pid_t>(syscall(SYS_clone3, &how, sizeof(how)));
}

// From here to Execute: in the child, where only system calls are safe. Each returns false with errno set.

bool PlaceStandardDescriptors(int output) {
    // Copied out of the way first: either may have a number that is written to below.
    const int null = fcntl(open("/dev/null", O_RDWR | O_CLOEXEC), F_DUPFD_CLOEXEC, 3);
    const int source = fcntl(output < 0 ? null : output, F_DUPFD_CLOEXEC, 3);
    return dup2(null, STDIN_FILENO) >= 0 && dup2(source, STDOUT_FILENO) >= 0 &&
           dup2(source, STDERR_FILENO) >= 0;
}

bool PinTo(int cpu) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(static_cast<size_t>(cpu), &only);
    return sched_setaffinity(0, sizeof(only), &only) == 0;
}

// Raw system calls: the library's would look for threads, which the parent has and this process has not.
bool BecomeUser(uid_t uid) {
    return syscall(SYS_setgroups, 0, nullptr) == 0 && syscall(SYS_setresgid, uid, uid, uid) == 0 &&
           syscall(SYS_setresuid, uid, uid, uid) == 0;
}

bool SetSignals(int blocked) {
    sigset_t mask;
    sigemptyset(&mask);
    if (blocked != 0) {
        sigaddset(&mask, blocked);
    }
    return std::signal(SIGPIPE, SIG_DFL) != SIG_ERR && pthread_sigmask(SIG_SETMASK, &mask, nullptr) == 0;
}

// The death signal is forgotten by a change of user, so it is asked for after that.
bool Prepare(const Launch& launch) {
    return (launch.hasOwnSession ? setsid() >= 0 : setpgid(0, 0) == 0) &&
           (!launch.cpu || PinTo(*launch.cpu)) && PlaceStandardDescriptors(launch.output) &&
           (launch.uid == 0 || BecomeUser(launch.uid)) && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 &&
           SetSignals(launch.blockedSignal);
}

[[noreturn]] void Execute(const Launch& launch, char* const* arguments, pid_t parent, int errorPipe) {
    if (Prepare(launch) && getppid() == parent) {
        execv(launch.program.c_str(), arguments);
    }
    const int error = errno;
    static_cast<void>(!write(errorPipe, &error, sizeof(error)));
    _exit(127);
}

}  // namespace

ChildProcess::ChildProcess(const Launch& launch) : ProcessView(-1), name_(launch.arguments.front()) {
    const std::vector<char*> arguments = PointersTo(launch.arguments);
    Pipe outcome;
    const pid_t parent = getpid();
    SetPid(Fork(launch.pid));
    if (Pid() == 0) {
        Execute(launch, arguments.data(), parent, outcome.writeEnd.Get());
    }
    if (Pid() < 0) {
        startError_ = Linux::LastError();
        return;
    }
    pidfd_ = UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, Pid(), 0)));
    int error = pidfd_ ? 0 : errno;
    // The pipe closes with the execution, so the new program runs when nothing was read.
    outcome.writeEnd = UniqueFd();
    static_cast<void>(!read(outcome.readEnd.Get(), &error, sizeof(error)));
    startError_ = Linux::ErrorOf(error);
}

ChildProcess::~ChildProcess() {
    if (Pid() > 0 && !waitStatus_) {
        // The group too is still its own, since it has not been reaped.
        kill(-Pid(), SIGKILL);
        waitpid(Pid(), nullptr, 0);
    }
}

void ChildProcess::Signal(int signal) const {
    Linux::SendSignal(pidfd_.Get(), signal);
}

bool ChildProcess::HasEnded(milliseconds limit) const {
    return !pidfd_ || AwaitReadable(pidfd_.Get(), limit);
}

std::optional<int> ChildProcess::AwaitEnd(milliseconds limit) {
    int status = 0;
    if (!waitStatus_ && HasEnded(limit) && waitpid(Pid(), &status, 0) == Pid()) {
        waitStatus_ = status;
    }
    return waitStatus_;
}

int ChildProcess::AwaitExit(milliseconds limit) {
    const std::optional<int> status = AwaitEnd(limit);
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

std::string EndText(int waitStatus) {
    return WIFEXITED(waitStatus) ? "exited " + std::to_string(WEXITSTATUS(waitStatus))
                                 : "was killed by signal " + std::to_string(WTERMSIG(waitStatus));
}

}  // namespace KITE::Tools
