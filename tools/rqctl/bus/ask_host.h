#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <string>

#include "rqctl/commands/command.h"

namespace KITE::Rqctl {

// Calls a method of the quota host's object /kite/treatments: `fill` puts the arguments into the call, `read`
// takes the answer; each returns a negative error number when it cannot. Returns kDone, or what went wrong
// after telling it.
ExitStatus AskHost(const Context& context, const std::string& member,
                   const std::function<int(sd_bus_message* call)>& fill,
                   const std::function<int(sd_bus_message* answer)>& read);

}  // namespace KITE::Rqctl
