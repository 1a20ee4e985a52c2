// rqctl: the operator's command. See docs/rqctl.md, and exit_status.h for the exit status.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <string>

#include "base/version.h"
#include "host/settings_options.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "runtime/platform_log.h"

namespace {

using namespace KITE::Rqctl;

// In the order of the help.
constexpr const Command* kCommands[] = {&kCheck,  &kExplain, &kDump,  &kIoBytes, &kRunningTime,
                                        &kDevice, &kPlot,    &kWatch, &kTreated, &kRelease};

void Describe(CLI::App& app, CommandLine& line) {
    KITE::Linux::AddSettingsOptions(app, line.settings);
    app.set_version_flag("--version", std::string("rqctl ") + KITE::Linux::kVersion);
    app.footer(kExitStatusHelp);
    app.require_subcommand(1);
    app.fallthrough();  // The common options may stand behind the subcommand, too.
    for (const Command* command : kCommands) {
        CLI::App& added = *app.add_subcommand(command->name, command->description);
        if (command->addOptions != nullptr) {
            command->addOptions(added, line);
        }
        if (command->hasJson) {
            added.add_flag("--json", line.wantsJson, "print JSON");
        }
    }
}

int RunChosen(const CLI::App& app, const CommandLine& line) {
    // What goes wrong is told by the command itself.
    KITE::Log::minimumLevel = KITE::Log::Level::kError;
    KITE::Linux::SetSettings(line.settings);
    const auto* chosen = std::ranges::find_if(
        kCommands, [&](const Command* command) { return app.got_subcommand(command->name); });
    const ExitStatus status = (*chosen)->run(line);
    KITE::Linux::StopLog();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Asks the resource quota control, and tells it about the device.", "rqctl");
        CommandLine line;
        Describe(app, line);
        try {
            app.parse(argc, argv);
            return RunChosen(app, line);
        } catch (const CLI::ParseError& error) {
            return app.exit(error);
        }
    } catch (const std::exception& error) {
        return Fail(kFailed, error.what());
    }
}
