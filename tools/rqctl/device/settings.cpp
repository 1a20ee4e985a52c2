#include "rqctl/device/settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>

#include "base/text.h"

namespace KITE::Rqctl {

using nlohmann::ordered_json;

// A key of "rqctl device", and where its value stands in the device state.
struct DeviceKey {
    enum Kind : uint8_t { kSwitch, kList, kNumber };

    std::string_view name;
    size_t ids;  // how many numbers stand behind it: none, a uid, a uid and a pid
    Kind kind;
    const char* list;    // the JSON pointer to the list that has an entry for the ids
    const char* member;  // of the entry; empty where each value makes an entry
};

namespace {

using Linux::Failure;

constexpr DeviceKey kKeys[] = {
    {"screen", 0, DeviceKey::kSwitch, "", "screen_on"},
    {"app", 1, DeviceKey::kList, "/applications", "processes"},
    {"render", 1, DeviceKey::kList, "/applications", "render_processes"},
    {"foreground", 1, DeviceKey::kSwitch, "/applications", "foreground"},
    {"window", 1, DeviceKey::kSwitch, "/applications", "visible_window"},
    {"extension", 1, DeviceKey::kList, "/extensions", ""},
    {"task", 2, DeviceKey::kList, "/continuous_tasks", "types"},
    {"app-resources", 2, DeviceKey::kNumber, "/efficiency_resources/applications", "resources"},
    {"process-resources", 2, DeviceKey::kNumber, "/efficiency_resources/processes", "resources"},
};

// A list of integers; absent for another text.
std::optional<ordered_json> NumbersOf(std::string_view text, char separator) {
    auto numbers = ordered_json::array();
    for (const std::string_view piece : Linux::Split(text, separator)) {
        const auto number = Linux::ParseDecimal(piece);
        if (!number) {
            return std::nullopt;
        }
        numbers.push_back(*number);
    }
    return text.ends_with(separator) || text.empty() ? std::nullopt : std::optional(numbers);
}

Linux::Result<DeviceSetting> ParseKey(std::string_view text) {
    const std::string_view name = text.substr(0, text.find(':'));
    const auto* key = std::ranges::find(kKeys, name, &DeviceKey::name);
    if (key == std::end(kKeys)) {
        return Failure(fmt::format("key {} is not known", text));
    }
    const auto ids = text.size() == name.size() ? std::optional(ordered_json::array())
                                                : NumbersOf(text.substr(name.size() + 1), ':');
    if (!ids || ids->size() != key->ids) {
        static constexpr const char* kForms[] = {"", ":UID", ":UID:PID"};
        return Failure(fmt::format("key {} is not of the form {}{}", text, name, kForms[key->ids]));
    }
    DeviceSetting setting{key, ordered_json::object(), nullptr};
    for (size_t i = 0; i < key->ids; ++i) {
        setting.identity[i == 0 ? "uid" : "pid"] = (*ids)[i];
    }
    return setting;
}

bool Has(const ordered_json& entry, const ordered_json& identity) {
    return std::ranges::all_of(identity.items(),
                               [&](const auto& item) { return entry.at(item.key()) == item.value(); });
}

void Remove(ordered_json& list, const ordered_json& identity) {
    std::erase_if(list.get_ref<ordered_json::array_t&>(),
                  [&](const ordered_json& entry) { return Has(entry, identity); });
}

// In each entry of that identity; in a new one where there is none.
void Set(ordered_json& list, const ordered_json& identity, const char* member, const ordered_json& value) {
    const auto hasIdentity = [&](const ordered_json& entry) { return Has(entry, identity); };
    if (std::ranges::none_of(list, hasIdentity)) {
        list.push_back(identity);
    }
    for (ordered_json& entry : list) {
        if (hasIdentity(entry)) {
            entry[member] = value;
        }
    }
}

}  // namespace

Linux::Result<DeviceSetting> ParseDeviceSetting(std::string_view key, std::string_view value) {
    auto setting = ParseKey(key);
    if (!setting) {
        return setting;
    }
    const DeviceKey::Kind kind = setting->key->kind;
    if (kind == DeviceKey::kSwitch) {
        setting->value = value == "on";
        return value == "on" || value == "off" ? setting : Failure(fmt::format("{} takes on or off", key));
    }
    const auto values = value == "none" ? std::optional(ordered_json::array()) : NumbersOf(value, ',');
    if (!values || (kind == DeviceKey::kNumber && values->size() > 1)) {
        return Failure(fmt::format("{} takes numbers or none, not {}", key, value));
    }
    setting->value = kind == DeviceKey::kNumber && !values->empty() ? values->front() : *values;
    return setting;
}

void Apply(const DeviceSetting& setting, ordered_json& state) {
    const DeviceKey& key = *setting.key;
    if (key.ids == 0) {
        state[key.member] = setting.value;
        return;
    }
    ordered_json& list = state[ordered_json::json_pointer(key.list)];
    if (list.is_null()) {
        list = ordered_json::array();
    }
    if (*key.member == '\0') {
        Remove(list, setting.identity);
        for (const ordered_json& pid : setting.value) {
            list.push_back(setting.identity);
            list.back()["pid"] = pid;
        }
    } else if (setting.value.empty() && key.name != "render") {
        Remove(list, setting.identity);
    } else {
        Set(list, setting.identity, key.member, setting.value);
    }
}

}  // namespace KITE::Rqctl
