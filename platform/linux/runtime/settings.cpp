#include "runtime/settings.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "base/file_names.h"
#include "base/immortal.h"

namespace KITE::Linux {

namespace {

constexpr const char* kUsualRunDirectory = "/run/kite";

Settings& Current() {
    static Immortal<Settings> settings;
    return settings.value;
}

}  // namespace

void SetSettings(Settings settings) {
    std::error_code error;
    if (settings.runDirectory.empty() && settings.stateDirectory == Settings().stateDirectory &&
        std::filesystem::is_directory(kUsualRunDirectory, error)) {
        settings.runDirectory = kUsualRunDirectory;
    }
    Current() = std::move(settings);
}

const Settings& GetSettings() {
    return Current();
}

const std::string& RunDirectory() {
    const Settings& settings = GetSettings();
    return settings.runDirectory.empty() ? settings.stateDirectory : settings.runDirectory;
}

std::string SamplesPath() {
    const std::string& state = GetSettings().stateDirectory;
    return state.substr(0, state.find_last_not_of('/') + 1) + "-samples" + FileName::kSamples;
}

}  // namespace KITE::Linux
