#pragma once

#include <sys/types.h>

#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "demo/unique_fd.h"

namespace KITE::Demo {

// What to start, and how.
struct Command {
    std::string executable;
    std::vector<std::string> arguments;            // from argv[0] on
    std::vector<std::string> environment;          // NAME=VALUE, in addition to ours
    std::vector<std::pair<int, int>> descriptors;  // ours, and its number in the child; 0 to 2 are else null
    std::optional<uid_t> uid;                      // and the group of that number; else ours
    std::optional<int> cpu;                        // the only one that it may run on
    int deathSignal = SIGKILL;                     // what it gets should we die
};

// How a process ended, as waitid tells it.
struct Ending {
    int code = 0;    // CLD_EXITED, CLD_KILLED, CLD_DUMPED
    int status = 0;  // the exit status or the signal

    bool IsKill() const { return code == CLD_KILLED && status == SIGKILL; }
    std::string Text() const;
};

// A process of ours, in a process group of its own, so that Ctrl-C reaches only us. It is reaped only through
// this object, so its pid means this process for as long as the object lives, and it is signalled only
// through its pidfd. Destruction kills it and waits for its end. One thread.
class Child {
  public:
    // Null, with the reason in `error`, when it could not be started.
    static std::unique_ptr<Child> Start(const Command& command, std::string& error);

    Child(pid_t pid, UniqueFd pidfd) : pid_(pid), pidfd_(std::move(pidfd)) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    pid_t Pid() const { return pid_; }
    // Readable when the process has ended.
    int Pidfd() const { return pidfd_.Get(); }
    void Signal(int signal) const;
    bool HasEnded() const;
    // Reaps it, waiting for its end if need be; the same answer again later.
    const Ending& AwaitEnd();

  private:
    const pid_t pid_;
    const UniqueFd pidfd_;
    std::optional<Ending> ending_;
};

// The text of an error number, as "what: text".
std::string ErrorText(const std::string& what, int error);

}  // namespace KITE::Demo
