#include "demo/child.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace KITE::Demo {

namespace {

std::vector<char*> PointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> EnvironmentWith(const std::vector<std::string>& additions) {
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        environment.emplace_back(*variable);
    }
    environment.insert(environment.end(), additions.begin(), additions.end());
    return environment;
}

// Everything that needs memory is made before the fork.
struct Prepared {
    explicit Prepared(const Command& from)
        : command(from),
          environment(EnvironmentWith(from.environment)),
          arguments(PointersTo(from.arguments)),
          variables(PointersTo(environment)),
          descriptors(from.descriptors) {}

    const Command& command;
    std::vector<std::string> environment;
    std::vector<char*> arguments;
    std::vector<char*> variables;
    std::vector<std::pair<int, int>> descriptors;
};

// From here on to BecomeCommand: in the child, between fork and exec. Each returns false with errno set.

bool PlaceDescriptors(Prepared& prepared) {
    constexpr int kAboveAllTargets = 10;
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (auto& [source, target] : prepared.descriptors) {
        source = fcntl(source, F_DUPFD_CLOEXEC, kAboveAllTargets);
    }
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (dup2(null, standard) < 0) {
            return false;
        }
    }
    for (const auto& [source, target] : prepared.descriptors) {
        if (dup2(source, target) < 0) {
            return false;
        }
    }
    return true;
}

bool PinTo(int cpu) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(static_cast<size_t>(cpu), &only);
    return sched_setaffinity(0, sizeof(only), &only) == 0;
}

bool Become(uid_t uid) {
    return setgroups(0, nullptr) == 0 && setresgid(uid, uid, uid) == 0 && setresuid(uid, uid, uid) == 0;
}

void UsualSignals() {
    std::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void BecomeCommand(Prepared& prepared, pid_t parent, int errorPipe) {
    const Command& command = prepared.command;
    // The death signal is forgotten by a change of user, so it comes after that.
    if (setpgid(0, 0) == 0 && PlaceDescriptors(prepared) && (!command.cpu || PinTo(*command.cpu)) &&
        (!command.uid || Become(*command.uid)) && prctl(PR_SET_PDEATHSIG, command.deathSignal) == 0) {
        UsualSignals();
        if (getppid() != parent) {
            _exit(1);
        }
        execve(command.executable.c_str(), prepared.arguments.data(), prepared.variables.data());
    }
    const int error = errno;
    static_cast<void>(!write(errorPipe, &error, sizeof(error)));
    _exit(1);
}

}  // namespace

std::string ErrorText(const std::string& what, int error) {
    const char* text = strerrordesc_np(error);
    return what + ": " + (text == nullptr ? std::to_string(error) : text);
}

std::string Ending::Text() const {
    if (code == CLD_EXITED) {
        return "exited " + std::to_string(status);
    }
    const char* name = sigabbrev_np(status);
    return "died of SIG" + (name == nullptr ? std::to_string(status) : name);
}

std::unique_ptr<Child> Child::Start(const Command& command, std::string& error) {
    Prepared prepared(command);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        error = ErrorText("pipe", errno);
        return nullptr;
    }
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        BecomeCommand(prepared, parent, writeEnd.Get());
    }
    if (pid < 0) {
        error = ErrorText("fork", errno);
        return nullptr;
    }
    UniqueFd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd) {
        error = ErrorText("pidfd_open", errno);
        kill(pid, SIGKILL);  // a child that is not reaped yet: the pid cannot mean another
        waitpid(pid, nullptr, 0);
        return nullptr;
    }
    auto child = std::make_unique<Child>(pid, std::move(pidfd));
    writeEnd = UniqueFd();
    int childError = 0;
    if (read(readEnd.Get(), &childError, sizeof(childError)) == sizeof(childError)) {
        error = ErrorText(command.executable, childError);
        return nullptr;
    }
    return child;
}

Child::~Child() {
    Signal(SIGKILL);
    AwaitEnd();
}

void Child::Signal(int signal) const {
    if (!ending_) {
        syscall(SYS_pidfd_send_signal, pidfd_.Get(), signal, nullptr, 0);
    }
}

bool Child::HasEnded() const {
    pollfd waited{pidfd_.Get(), POLLIN, 0};
    return ending_ || poll(&waited, 1, 0) == 1;
}

const Ending& Child::AwaitEnd() {
    if (!ending_) {
        siginfo_t info{};
        while (waitid(P_PIDFD, static_cast<id_t>(pidfd_.Get()), &info, WEXITED) != 0 && errno == EINTR) {
        }
        ending_ = Ending{info.si_code, info.si_status};
    }
    return *ending_;
}

}  // namespace KITE::Demo
