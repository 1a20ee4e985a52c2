#include "treatments/never_treated.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "ipc/bus.h"
#include "proc/process_stat.h"

namespace KITE::Linux {

namespace {

constexpr pid_t kInitPid = 1;

// Anybody can give a program that name, but not to a file of root's.
bool IsJournal(pid_t pid) {
    struct stat program {};
    const std::string path = "/proc/" + std::to_string(pid) + "/exe";
    return ReadExecutableName(pid) == "systemd-journald" && stat(path.c_str(), &program) == 0 &&
           program.st_uid == 0;
}

}  // namespace

std::string WhyNeverTreated(pid_t pid) {
    if (pid == kInitPid) {
        return "it is the init process";
    }
    if (pid == getpid()) {
        return "it is this process";
    }
    const std::optional<std::vector<pid_t>> isProtected = BusProtectedPids();
    if (!isProtected) {
        return "it is not known which processes are the bus daemon and the hosts";
    }
    if (std::ranges::find(*isProtected, pid) != isProtected->end()) {
        return "it is the bus daemon or a host of the quota service or of the Kelvra manager";
    }
    const std::optional<ProcStat> stat = ReadProcStat(pid);
    if (stat && stat->IsKernelThread()) {
        return "it is a kernel thread";
    }
    return IsJournal(pid) ? "it is the journal daemon" : "";
}

}  // namespace KITE::Linux
