#include "treatments/never_treated.h"

#include <unistd.h>

#include <algorithm>
#include <vector>

#include "ipc/bus.h"
#include "proc/process_stat.h"
#include "proc/program.h"

namespace KITE::Linux {

namespace {

// Any program can be called that, but only root can make a file that belongs to root.
bool IsJournal(pid_t pid) {
    const std::optional<ExecutableIdentity> program = ReadExecutableIdentity(pid);
    return ReadExecutableName(pid) == "systemd-journald" && program && program->owner == 0;
}

}  // namespace

std::optional<std::string> WhyNeverTreated(pid_t pid) {
    if (pid == 1) {
        return "it is the init process";
    }
    if (pid == getpid()) {
        return "it is this process";
    }
    const std::optional<std::vector<pid_t>> hostsAndBus = Bus::Instance().Abilities().ProtectedPids();
    if (!hostsAndBus) {
        return "it is not known which processes are the bus daemon and the hosts";
    }
    if (std::ranges::find(*hostsAndBus, pid) != hostsAndBus->end()) {
        return "it is the bus daemon or a host of the quota service or of the Kelvra manager";
    }
    const Result<ProcessStat> stat = ReadProcessStat(pid);
    if (stat && stat->IsKernelThread()) {
        return "it is a kernel thread";
    }
    return IsJournal(pid) ? std::optional<std::string>("it is the journal daemon") : std::nullopt;
}

}  // namespace KITE::Linux
