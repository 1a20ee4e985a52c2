// rqctl release: ends what is done to a process.

#include <cstdint>
#include <limits>
#include <memory>

#include "rqctl/bus/ask_host.h"
#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

void AddRelease(CLI::App& app, Context& context) {
    const auto pid = std::make_shared<int32_t>();
    CLI::App& command = AddCommand(
        app, context, "release", "Ends the suppression and the freeze of a process.", [&context, pid] {
            return AskHost(
                context, "Release",
                [pid](sd_bus_message* call) { return sd_bus_message_append(call, "i", *pid); },
                [](sd_bus_message*) { return 0; });
        });
    command.add_option("PID", *pid, "the process")
        ->required()
        ->check(CLI::Range(1, std::numeric_limits<int32_t>::max()));
}

}  // namespace KITE::Rqctl
