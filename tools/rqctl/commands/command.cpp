#include "rqctl/commands/command.h"

#include <utility>

namespace KITE::Rqctl {

CLI::App& AddCommand(CLI::App& app, Context& context, const std::string& name, const std::string& description,
                     std::function<ExitStatus()> run) {
    CLI::App* command = app.add_subcommand(name, description);
    command->fallthrough();
    command->final_callback([&context, run = std::move(run)] { context.run = run; });
    return *command;
}

void AddJsonOption(CLI::App& command, Context& context) {
    command.add_flag("--json", context.wantsJson, "print JSON");
}

}  // namespace KITE::Rqctl
