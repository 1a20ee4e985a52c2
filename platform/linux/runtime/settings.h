#pragma once

#include <string>

#include "visibility.h"

namespace KITE::Linux {

// Where this process finds its files and its bus.
struct Settings {
    std::string etcDirectory = "/etc/kite";
    std::string stateDirectory = "/var/lib/kite";
    // Where the records of the treated processes are kept: they must outlive a killed host, and need not
    // outlive a boot. Empty: /run/kite where the state directory is the usual one and /run/kite exists, as on
    // an installed system; else the state directory.
    std::string runDirectory = {};
    std::string busAddress = {};       // empty: the system bus
    bool logsToStandardError = false;  // also where there is a journal
    bool isDryRun = false;             // decide, log and record, but touch no process
};

// Replaces the defaults. The programs call it once, before there is another thread and before anything else
// of the platform is used, since the settings are read without a lock; tests call it again.
KITE_API void SetSettings(Settings settings);

// Any thread; also before main and while the process exits.
KITE_API const Settings& GetSettings();

// The directory that runDirectory stands for. Any thread.
KITE_API const std::string& RunDirectory();

// The file of recorded samples: /var/lib/kite-samples/samples.jsonl for the state directory /var/lib/kite.
// Not in that, since another host's user writes it, and neither can change the other's files. Any thread.
KITE_API std::string SamplesPath();

}  // namespace KITE::Linux
