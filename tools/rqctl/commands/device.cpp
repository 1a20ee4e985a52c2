// rqctl device: shows and sets the device state, which the kernel cannot tell.

#include <fmt/format.h>

#include <string>
#include <vector>

#include "base/file_names.h"
#include "device/device_state.h"
#include "rqctl/commands/command.h"
#include "rqctl/device/file_replacement.h"
#include "rqctl/device/settings.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::ordered_json;

constexpr const char* kHelp =
    "  KEY                       VALUE\n"
    "  screen                    on or off\n"
    "  app:UID                   the application's processes; none: there is no such application\n"
    "  render:UID                the application's render processes, or none\n"
    "  foreground:UID            on or off: whether the application is in the foreground\n"
    "  window:UID                on or off: whether it has a visible window\n"
    "  extension:UID             the processes of the user's extensions, or none\n"
    "  task:UID:PID              types of a continuous task, or none; 1 is a data transfer\n"
    "  app-resources:UID:PID     efficiency resources granted to an application, a bit set, or none\n"
    "  process-resources:UID:PID the same of a process\n"
    "\n"
    "Lists are separated by commas:\n"
    "rqctl device screen off app:20001 412,413 foreground:20001 on\n\n";

std::vector<DeviceSetting> Parse(const std::vector<std::string>& keyValues) {
    if (keyValues.size() % 2 != 0) {
        throw CLI::ValidationError(keyValues.back() + " has no VALUE");
    }
    std::vector<DeviceSetting> settings;
    for (size_t i = 0; i < keyValues.size(); i += 2) {
        const auto setting = ParseDeviceSetting(keyValues[i], keyValues[i + 1]);
        if (!setting) {
            throw CLI::ValidationError(setting.Why().Text());
        }
        settings.push_back(*setting);
    }
    return settings;
}

template <typename T>
std::string Joined(const std::vector<T>& numbers) {
    return numbers.empty() ? "none" : fmt::format("{}", fmt::join(numbers, ", "));
}

void ShowResources(const std::vector<Linux::DeviceState::EfficiencyResource>& resources, const char* whose) {
    for (const auto& [uid, pid, bits] : resources) {
        Say(fmt::format("efficiency resources of the {}, uid {}, pid {}: {}", whose, uid, pid, bits));
    }
}

void Show(const Linux::DeviceState& state) {
    Say(state.screenOn ? "screen on" : "screen off");
    for (const auto& application : state.applications) {
        Say(fmt::format("application, uid {}: processes {}; render processes {}; in the {}{}",
                        application.uid, Joined(application.processes), Joined(application.renderProcesses),
                        application.foreground ? "foreground" : "background",
                        application.visibleWindow ? "; with a visible window" : ""));
    }
    for (const auto& [uid, pid] : state.extensions) {
        Say(fmt::format("extension, uid {}, pid {}", uid, pid));
    }
    for (const auto& [uid, pid, types] : state.continuousTasks) {
        Say(fmt::format("continuous task, uid {}, pid {}: types {}", uid, pid, Joined(types)));
    }
    ShowResources(state.applicationResources, "application");
    ShowResources(state.processResources, "process");
}

// Writes nothing that the hosts would not accept.
Linux::Result<void> Change(FileReplacement& file, ordered_json document,
                           const std::vector<DeviceSetting>& settings) {
    for (const DeviceSetting& setting : settings) {
        Apply(setting, document);
    }
    const std::string text = document.dump(4) + '\n';
    if (const auto changed = Linux::ReadDeviceState(text); !changed) {
        return changed.Why().In("nothing is set, for the result would not be a device state");
    }
    return file.Replace(text);
}

ExitStatus Run(const CommandLine& line) {
    const std::vector<DeviceSetting> settings = Parse(line.keyValues);
    const std::string path = line.settings.stateDirectory + Linux::FileName::kDeviceState;
    auto file = FileReplacement::Open(path);
    if (!file) {
        return Fail(kFailed, file.Why().Text());
    }
    const std::string text = file->Content().value_or(R"({"screen_on": true})");
    const auto state = Linux::ReadDeviceState(text);
    if (!state) {
        return Fail(kFailed, state.Why().In(path).Text());
    }
    const auto document = ordered_json::parse(text);
    if (settings.empty()) {
        line.wantsJson ? SayJson(document) : Show(*state);
        return kDone;
    }
    const Linux::Result<void> changed = Change(*file, document, settings);
    return changed ? kDone : Fail(kFailed, changed.Why().Text());
}

void AddOptions(CLI::App& command, CommandLine& line) {
    command.add_option("WORDS", line.keyValues, "keys and values, in turn")->type_name("");
    command.footer(std::string(kHelp) + kExitStatusHelp);
}

}  // namespace

const Command kDevice{"device",
                      "Shows the device state, or sets parts of it. What is not named stays; the file is "
                      "replaced as a whole.",
                      Run, AddOptions};

}  // namespace KITE::Rqctl
