// rqctl device: what the machine cannot know by itself, shown and set.

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device/device_state.h"
#include "rqctl/commands/command.h"
#include "rqctl/device/file_replacement.h"
#include "rqctl/output.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::ordered_json;
using Numbers = std::vector<int64_t>;

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

// What a value says, by the kind that its key takes.
enum class Kind : uint8_t { kSwitch, kList, kNumber };

struct Key {
    std::string_view name;
    size_t ids;  // how many numbers stand behind it: none, a uid, a uid and a pid
    Kind kind;
    // The list that holds the entry; for a switch or a list within an application, its member there.
    std::string_view list;
    std::string_view member;
};

constexpr std::array<Key, 9> kKeys{{
    {"screen", 0, Kind::kSwitch, "", "screen_on"},
    {"app", 1, Kind::kList, "applications", "processes"},
    {"render", 1, Kind::kList, "applications", "render_processes"},
    {"foreground", 1, Kind::kSwitch, "applications", "foreground"},
    {"window", 1, Kind::kSwitch, "applications", "visible_window"},
    {"extension", 1, Kind::kList, "extensions", ""},
    {"task", 2, Kind::kList, "continuous_tasks", "types"},
    {"app-resources", 2, Kind::kNumber, "/efficiency_resources/applications", "resources"},
    {"process-resources", 2, Kind::kNumber, "/efficiency_resources/processes", "resources"},
}};

struct Setting {
    const Key* key = nullptr;
    Numbers ids;
    bool isOn = false;
    Numbers values;  // none of them: "none"
};

std::optional<Numbers> NumbersOf(std::string_view text, char separator) {
    Numbers numbers;
    while (true) {
        const std::string_view part = text.substr(0, text.find(separator));
        int64_t& number = numbers.emplace_back();
        const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), number);
        if (error != std::errc() || end != part.data() + part.size()) {
            return std::nullopt;
        }
        if (part.size() == text.size()) {
            return numbers;
        }
        text.remove_prefix(part.size() + 1);
    }
}

Setting SettingOf(std::string_view key, std::string_view value) {
    const std::string_view name = key.substr(0, key.find(':'));
    const auto found = std::ranges::find(kKeys, name, &Key::name);
    if (found == kKeys.end()) {
        throw CLI::ValidationError("KEY", std::string(key) + " is not known");
    }
    Setting setting{&*found, {}, value == "on", {}};
    const auto ids = key.size() == name.size() ? Numbers() : NumbersOf(key.substr(name.size() + 1), ':');
    if (!ids || ids->size() != found->ids) {
        constexpr std::array<const char*, 3> kForms{"", ":UID", ":UID:PID"};
        throw CLI::ValidationError(
            "KEY", std::string(key) + " is not of the form " + std::string(name) + kForms.at(found->ids));
    }
    setting.ids = *ids;
    if (found->kind == Kind::kSwitch) {
        if (value != "on" && value != "off") {
            throw CLI::ValidationError("VALUE", std::string(key) + " is on or off");
        }
    } else if (value != "none") {
        const auto values = NumbersOf(value, ',');
        if (!values || (found->kind == Kind::kNumber && values->size() != 1)) {
            throw CLI::ValidationError("VALUE",
                                       std::string(key) + " takes numbers or none: " + std::string(value));
        }
        setting.values = *values;
    }
    return setting;
}

std::vector<Setting> SettingsOf(const std::vector<std::string>& words) {
    if (words.size() % 2 != 0) {
        throw CLI::ValidationError("KEY", words.back() + " has no VALUE");
    }
    std::vector<Setting> settings;
    for (size_t i = 0; i < words.size(); i += 2) {
        settings.push_back(SettingOf(words[i], words[i + 1]));
    }
    return settings;
}

// An entry's identity: {"uid": N} or {"uid": N, "pid": M}.
ordered_json IdentityOf(const Numbers& ids) {
    ordered_json identity{{"uid", ids[0]}};
    if (ids.size() > 1) {
        identity["pid"] = ids[1];
    }
    return identity;
}

bool IsOf(const ordered_json& entry, const ordered_json& identity) {
    return std::ranges::all_of(identity.items(),
                               [&](const auto& item) { return entry.at(item.key()) == item.value(); });
}

void Remove(ordered_json& list, const ordered_json& identity) {
    auto kept = ordered_json::array();
    std::ranges::copy_if(list, std::back_inserter(kept),
                         [&](const ordered_json& entry) { return !IsOf(entry, identity); });
    list = std::move(kept);
}

// In each entry of that identity; in a new one where there is none.
void Set(ordered_json& list, const ordered_json& identity, const std::string& member,
         const ordered_json& value) {
    const auto isOfIt = [&](const ordered_json& entry) { return IsOf(entry, identity); };
    if (std::ranges::none_of(list, isOfIt)) {
        list.push_back(identity);
    }
    for (ordered_json& entry : list) {
        if (isOfIt(entry)) {
            entry[member] = value;
        }
    }
}

ordered_json& ListOf(ordered_json& state, std::string_view name) {
    const bool isPath = name.starts_with('/');
    ordered_json& list =
        isPath ? state[ordered_json::json_pointer(std::string(name))] : state[std::string(name)];
    if (list.is_null()) {
        list = ordered_json::array();
    }
    return list;
}

void Apply(const Setting& setting, ordered_json& state) {
    const Key& key = *setting.key;
    const std::string member(key.member);
    if (key.list.empty()) {
        state[member] = setting.isOn;
        return;
    }
    ordered_json& list = ListOf(state, key.list);
    const ordered_json identity = IdentityOf(setting.ids);
    if (key.kind == Kind::kSwitch) {
        Set(list, identity, member, setting.isOn);
    } else if (member.empty()) {
        Remove(list, identity);
        for (const int64_t pid : setting.values) {
            list.emplace_back(IdentityOf({setting.ids[0], pid}));
        }
    } else if (setting.values.empty() && key.name != "render") {
        Remove(list, identity);
    } else if (key.kind == Kind::kNumber) {
        Set(list, identity, member, setting.values[0]);
    } else {
        Set(list, identity, member, setting.values);
    }
}

template <typename T>
std::string Joined(const std::vector<T>& numbers) {
    std::string text;
    for (const T number : numbers) {
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    }
    return text.empty() ? "none" : text;
}

void ShowResources(const std::vector<Linux::DeviceState::EfficiencyResource>& resources, const char* whose) {
    for (const auto& [uid, pid, bits] : resources) {
        Say(std::string("efficiency resources of the ") + whose + ", uid " + std::to_string(uid) + ", pid " +
            std::to_string(pid) + ": " + std::to_string(bits));
    }
}

void Show(const Linux::DeviceState& state) {
    Say(std::string("screen ") + (state.screenOn ? "on" : "off"));
    for (const auto& application : state.applications) {
        Say("application, uid " + std::to_string(application.uid) + ": processes " +
            Joined(application.processes) + "; render processes " + Joined(application.renderProcesses) +
            (application.foreground ? "; in the foreground" : "; in the background") +
            (application.visibleWindow ? "; with a visible window" : ""));
    }
    for (const auto& [uid, pid] : state.extensions) {
        Say("extension, uid " + std::to_string(uid) + ", pid " + std::to_string(pid));
    }
    for (const auto& [uid, pid, types] : state.continuousTasks) {
        Say("continuous task, uid " + std::to_string(uid) + ", pid " + std::to_string(pid) + ": types " +
            Joined(types));
    }
    ShowResources(state.applicationResources, "application");
    ShowResources(state.processResources, "process");
}

ExitStatus Run(const Context& context, const std::vector<Setting>& settings) {
    const std::string path = context.settings.stateDirectory + "/device_state.json";
    FileReplacement file(path);
    std::string error;
    if (!file.Open(error)) {
        return Fail(kFailed, error);
    }
    std::string text = file.Exists() ? file.Content() : R"({"screen_on": true})";
    const Linux::Result<Linux::DeviceState> state = Linux::ReadDeviceState(text);
    if (!state) {
        return Fail(kFailed, state.Why().In(path).Text());
    }
    auto document = ordered_json::parse(text);
    if (settings.empty()) {
        context.wantsJson ? SayJson(document) : Show(*state);
        return kDone;
    }
    for (const Setting& setting : settings) {
        Apply(setting, document);
    }
    text = document.dump(4) + '\n';
    if (const auto changed = Linux::ReadDeviceState(text); !changed) {
        return Fail(kFailed, "nothing is set: this would not be a device state: " + changed.Why().Text());
    }
    return file.Replace(text, error) ? kDone : Fail(kFailed, error);
}

}  // namespace

void AddDevice(CLI::App& app, Context& context) {
    const auto words = std::make_shared<std::vector<std::string>>();
    const auto settings = std::make_shared<std::vector<Setting>>();
    CLI::App& command = AddCommand(
        app, context, "device",
        "Shows the device state, or sets parts of it. What is not named stays; the file is replaced "
        "as a whole.",
        [&context, settings] { return Run(context, *settings); });
    command.add_option("WORDS", *words, "keys and values, in turn")->type_name("");
    command.parse_complete_callback([words, settings] { *settings = SettingsOf(*words); });
    command.footer(std::string(kHelp) + kExitStatusHelp);
    AddJsonOption(command, context);
}

}  // namespace KITE::Rqctl
