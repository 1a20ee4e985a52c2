#pragma once

#include <sys/types.h>

#include <csignal>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "base/unique_fd.h"
#include "private_system/process_view.h"

namespace KITE::Tools {

// What to start, and how.
struct Launch {
    std::string program = {};
    std::vector<std::string> arguments = {};  // with the name that the process shall have in front
    uid_t uid = 0;                            // and the group of that number; ours if 0
    int output = -1;  // standard output and error; /dev/null if negative, as standard input always is
    std::optional<int> cpu = std::nullopt;  // the only one that it may run on
    pid_t pid = 0;                          // the pid that it must get; any if 0
    int blockedSignal = 0;                  // blocked from the start; none if 0
    bool hasOwnSession = true;  // else only a process group of its own, so that Ctrl-C reaches us alone
};

// A process of ours, which ends with this object and with the thread that started it. It is reaped only
// through this object, so its pid means this process until then, and is signalled through its pidfd.
// Destruction kills it with what is left of its process group. One thread, but for what only looks.
class ChildProcess : public ProcessView {
  public:
    explicit ChildProcess(const Launch& launch);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    // Why the program could not be executed. The process counts as one that has ended then.
    const std::error_code& StartError() const { return startError_; }
    const std::string& Name() const { return name_; }
    // Readable when the process has ended.
    int Pidfd() const { return pidfd_.Get(); }
    void Signal(int signal) const;
    bool HasEnded(milliseconds limit = milliseconds(0)) const;
    // The wait status, once it has ended.
    std::optional<int> AwaitEnd(milliseconds limit = kPatience);
    // The exit status; -1 when it was killed or has not ended in time.
    int AwaitExit(milliseconds limit = kPatience);

  private:
    const std::string name_;
    Linux::UniqueFd pidfd_;
    std::error_code startError_;
    std::optional<int> waitStatus_;
};

// "exited 1" or "was killed by signal 9".
std::string EndText(int waitStatus);

}  // namespace KITE::Tools
