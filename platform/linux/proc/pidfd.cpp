#include "proc/pidfd.h"

#include <poll.h>
#include <sys/syscall.h>

#include <cerrno>

#include "proc/process_stat.h"

namespace KITE::Linux {

Result<UniqueFd> OpenProcess(pid_t pid, int64_t startTime) {
    if (pid < 1) {
        return ErrorOf(ESRCH);
    }
    UniqueFd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!pidfd) {
        // By kernel versions, the id of a thread that leads no process is an invalid one or has no entry.
        return errno == EINVAL || errno == ENOENT ? ErrorOf(ESRCH) : LastError();
    }
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    const bool hasExited = HasExited(pidfd.Get());
    if (!stat && !hasExited && stat.Code() == ErrorOf(ESRCH)) {
        return ErrorOf(EACCES);  // the process is there, and /proc does not show it
    }
    if (!stat) {
        return stat.Why();
    }
    return stat->startTime == startTime && !hasExited ? Result<UniqueFd>(std::move(pidfd)) : ErrorOf(ESRCH);
}

bool HasExited(int pidfd) {
    pollfd wait{pidfd, POLLIN, 0};
    return poll(&wait, 1, 0) > 0 && wait.revents != 0;
}

std::error_code SendSignal(int pidfd, int signal) {
    return syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) == 0 ? std::error_code() : LastError();
}

}  // namespace KITE::Linux
