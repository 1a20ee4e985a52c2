// rqctl: the operator's command. See docs/rqctl.md, and exit_status.h for the exit status.

#include <CLI/CLI.hpp>

#include <exception>
#include <string>

#include "base/version.h"
#include "host/settings_options.h"
#include "rqctl/commands/command.h"
#include "rqctl/output.h"
#include "runtime/platform_log.h"

namespace {

using namespace KITE::Rqctl;

// In the order of the help; a line each.
constexpr Add* kCommands[] = {
    // clang-format off
    AddCheck,
    AddExplain,
    AddDump,
    AddIoBytes,
    AddRunningTime,
    AddDevice,
    AddPlot,
    AddWatch,
    AddTreated,
    AddRelease,
    // clang-format on
};

void Describe(CLI::App& app, Context& context) {
    KITE::Linux::AddSettingsOptions(app, context.settings);
    app.set_version_flag("--version", std::string("rqctl ") + KITE::Linux::kVersion);
    app.footer(kExitStatusHelp);
    app.require_subcommand(1);
    for (Add* add : kCommands) {
        add(app, context);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Asks the resource quota control, and tells it about the device.", "rqctl");
        Context context;
        Describe(app, context);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error);
        }
        // What goes wrong is told by the command itself.
        KITE::Log::minimumLevel = KITE::Log::Level::kError;
        KITE::Linux::SetSettings(context.settings);
        const ExitStatus status = context.run();
        KITE::Linux::StopLog();
        return status;
    } catch (const std::exception& error) {
        return Fail(kFailed, error.what());
    }
}
