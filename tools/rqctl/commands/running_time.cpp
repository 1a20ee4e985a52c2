// rqctl running-time: how long extensions may run.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string>

#include "rqctl/bus/ask_service.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

void Show(const std::map<std::string, int32_t>& times) {
    size_t width = 0;
    for (const auto& [name, time] : times) {
        width = std::max(width, Escaped(name).size());
    }
    for (const auto& [name, time] : times) {
        Say(fmt::format("{:{}}  {}", Escaped(name), width, time));
    }
}

ExitStatus Run(const CommandLine& line) {
    std::map<std::string, int32_t> times;
    const ExitStatus status =
        AskService(line, [&](auto& service) { return service.GetExtensionRunningTime(times); });
    if (status == kDone) {
        line.wantsJson ? SayJson(times) : Show(times);
    }
    return status;
}

}  // namespace

const Command kRunningTime{"running-time", "Prints the configured running time of each extension.", Run};

}  // namespace KITE::Rqctl
