// rqctl release: lets a process go that is suppressed or frozen.

#include <cstdint>
#include <limits>
#include <memory>

#include "rqctl/bus/ask_host.h"
#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

void AddRelease(CLI::App& app, Context& context) {
    const auto pid = std::make_shared<int32_t>();
    CLI::App& command =
        AddCommand(app, context, "release",
                   "Lets a process go: it is neither suppressed nor frozen any more.", [&context, pid] {
                       return AskTreatments(
                           context, "Release",
                           [pid](sd_bus_message* call) { return sd_bus_message_append(call, "i", *pid); },
                           [](sd_bus_message*) { return 0; });
                   });
    command.add_option("PID", *pid, "the process")
        ->required()
        ->check(CLI::Range(1, std::numeric_limits<int32_t>::max()));
}

}  // namespace KITE::Rqctl
