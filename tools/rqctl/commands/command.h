#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

#include "rqctl/exit_status.h"
#include "runtime/settings.h"

namespace KITE::Rqctl {

// What the subcommands share: the common options, and what is to be run once the command line has been read.
struct Context {
    Linux::Settings settings;
    bool wantsJson = false;
    std::function<ExitStatus()> run;
};

using Add = void(CLI::App& app, Context& context);

// Each adds one subcommand to the application, with its options and its help.
Add AddCheck;
Add AddExplain;
Add AddDump;
Add AddIoBytes;
Add AddRunningTime;
Add AddDevice;
Add AddPlot;
Add AddWatch;
Add AddTreated;
Add AddRelease;

// A subcommand that is run, when it was chosen, after the whole command line has been read. The common
// options may stand behind it, too.
CLI::App& AddCommand(CLI::App& app, Context& context, const std::string& name, const std::string& description,
                     std::function<ExitStatus()> run);

// --json, for a command whose output is data: it then prints one JSON document, or one a line.
void AddJsonOption(CLI::App& command, Context& context);

}  // namespace KITE::Rqctl
