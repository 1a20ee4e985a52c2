#include "actions/never_treated.h"

#include <unistd.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "actions/proc_stat.h"
#include "ipc/bus.h"

namespace KITE::Linux {

namespace {

constexpr pid_t kInitPid = 1;

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
        return "it is not known yet which processes are the hosts";
    }
    if (std::ranges::find(*isProtected, pid) != isProtected->end()) {
        return "it is the bus daemon or a host of the quota service or of the Kelvra manager";
    }
    const std::optional<ProcStat> stat = ReadProcStat(pid);
    if (stat && stat->IsKernelThread()) {
        return "it is a kernel thread";
    }
    return ReadExecutableName(pid) == "systemd-journald" ? "it is the journal daemon" : "";
}

}  // namespace KITE::Linux
