// rqctl running-time: how long extensions may run.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string>

#include "resource_quota_control_errors.h"
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

ExitStatus Run(const Context& context) {
    ServiceConnection service(context);
    if (const ExitStatus status = service.Open()) {
        return status;
    }
    std::map<std::string, int32_t> times;
    if (const int32_t result = service->GetExtensionRunningTime(times)) {
        return service.Explain(result);
    }
    if (context.wantsJson) {
        SayJson(nlohmann::ordered_json(times));
    } else {
        Show(times);
    }
    return kDone;
}

}  // namespace

void AddRunningTime(CLI::App& app, Context& context) {
    AddJsonOption(
        AddCommand(app, context, "running-time", "Prints the configured running time of each extension.",
                   [&context] { return Run(context); }),
        context);
}

}  // namespace KITE::Rqctl
