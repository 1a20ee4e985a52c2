#pragma once

#include <CLI/CLI.hpp>

#include "runtime/settings.h"

namespace KITE::Linux {

// Where a program's files and its bus are: options, for which environment variables stand in.
inline void AddSettingsOptions(CLI::App& app, Settings& settings) {
    const auto add = [&app](const char* name, const char* variable, std::string& value, const char* what) {
        return app.add_option(name, value, what)->envname(variable)->take_last();
    };
    add("--etc", "KITE_ETC", settings.etcDirectory, "directory of the platform's configuration")
        ->capture_default_str();
    add("--state", "KITE_STATE", settings.stateDirectory, "directory of the platform's state")
        ->capture_default_str();
    add("--run", "KITE_RUN", settings.runDirectory,
        "directory of the records of what is treated now; /run/kite if that is there, else the state "
        "directory");
    add("--bus", "KITE_BUS", settings.busAddress, "address of the bus; the system bus if not given");
}

}  // namespace KITE::Linux
