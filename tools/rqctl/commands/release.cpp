// rqctl release: ends what is done to a process.

#include "rqctl/bus/ask_host.h"
#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

namespace {

ExitStatus Run(const CommandLine& line) {
    return AskHost(
        line, "Release", [&](sd_bus_message* call) { return sd_bus_message_append(call, "i", line.pid); },
        [](sd_bus_message*) { return 0; });
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command.add_option("PID", line.pid, "the process")->required()->check(CLI::Range(1, INT32_MAX));
}

}  // namespace

const Command kRelease{"release", "Ends the suppression and the freeze of a process.", Run, AddOptions,
                       false};

}  // namespace KITE::Rqctl
