#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <string>

#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

// Puts the arguments into a call, or takes its answer. Returns a negative error number when it cannot.
using MessageWork = std::function<int(sd_bus_message*)>;

// Calls a method of the object /kite/treatments. Tells what went wrong and returns it; else kDone.
ExitStatus AskHost(const CommandLine& line, const std::string& method, const MessageWork& writeArguments,
                   const MessageWork& readAnswer);

}  // namespace KITE::Rqctl
