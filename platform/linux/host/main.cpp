// kite_host: runs the abilities of the libraries that it is given.
//
//   kite_host [--etc DIR] [--state DIR] [--run DIR] [--bus ADDRESS] [--log-level LEVEL] [--log-to-stderr]
//             [--dry-run] LIBRARY...
//   kite_host --release [--state DIR] [--run DIR] [--log-level LEVEL] [--log-to-stderr]
//   kite_host --version
//
// KITE_ETC, KITE_STATE, KITE_RUN and KITE_BUS stand in for the options of those names.
//
// Exit status: 0 stopped as asked, or everything released; 1 the start failed (the log says why), or not
// everything could be released; 75 the bus went away; 100 and above the command line is wrong, as CLI11
// numbers it (106 no library, 109 an unknown option, 105 an unknown log level).

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <map>

#include "base/version.h"
#include "host/host.h"
#include "host/settings_options.h"

namespace {

using KITE::Linux::HostOptions;

const std::map<std::string, KITE::Log::Level> kLogLevels{{"debug", KITE::Log::Level::kDebug},
                                                         {"info", KITE::Log::Level::kInfo},
                                                         {"warning", KITE::Log::Level::kWarning},
                                                         {"error", KITE::Log::Level::kError}};

void Describe(CLI::App& app, HostOptions& options) {
    KITE::Linux::AddSettingsOptions(app, options.settings);
    app.add_option("--log-level", options.logLevel, "least level that is logged")
        ->transform(CLI::CheckedTransformer(kLogLevels, CLI::ignore_case));
    app.add_flag("--log-to-stderr", options.settings.logsToStandardError,
                 "log to standard error also where there is a journal");
    CLI::Option* libraries = app.add_option("LIBRARY", options.libraries, "libraries to load");
    CLI::Option* release =
        app.add_flag("--release", options.release, "release what a killed host left treated, and exit");
    CLI::Option* dryRun = app.add_flag("--dry-run", options.settings.isDryRun,
                                       "decide, log and record as always, but touch no process");
    release->excludes(libraries)->excludes(dryRun);
    app.set_version_flag("--version", std::string("kite_host ") + KITE::Linux::kVersion);
    app.callback([libraries, &options] {
        if (!options.release && libraries->count() == 0) {
            throw CLI::RequiredError("LIBRARY");
        }
    });
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Runs the system abilities of the given libraries.", "kite_host");
        HostOptions options;
        Describe(app, options);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error);
        }
        return KITE::Linux::RunHost(options);
    } catch (const std::exception& error) {
        std::cerr << "kite_host: " << error.what() << '\n';
        return KITE::Linux::kExitFailed;
    }
}
