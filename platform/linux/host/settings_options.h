#pragma once

#include <CLI/CLI.hpp>

#include "runtime/settings.h"

namespace KITE::Linux {

// The options by which a program is told where its files and its bus are; environment variables stand in for
// them.
inline void AddSettingsOptions(CLI::App& app, Settings& settings) {
    app.add_option("--etc", settings.etcDirectory, "directory of the platform's configuration")
        ->envname("KITE_ETC")
        ->capture_default_str()
        ->take_last();
    app.add_option("--state", settings.stateDirectory, "directory of the platform's state")
        ->envname("KITE_STATE")
        ->capture_default_str()
        ->take_last();
    app.add_option(
           "--run", settings.runDirectory,
           "directory of the records of what is treated now; /run/kite if that is there, else the state "
           "directory")
        ->envname("KITE_RUN")
        ->take_last();
    app.add_option("--bus", settings.busAddress, "address of the bus; the system bus if not given")
        ->envname("KITE_BUS")
        ->take_last();
}

}  // namespace KITE::Linux
