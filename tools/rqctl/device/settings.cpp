#include "rqctl/device/settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>

#include "base/text.h"

namespace KITE::Rqctl {

namespace {

using Linux::Failure;
using nlohmann::ordered_json;

constexpr DeviceKey kKeys[] = {
    {"screen", 0, ValueKind::kSwitch, "", "screen_on"},
    {"app", 1, ValueKind::kList, "applications", "processes"},
    {"render", 1, ValueKind::kList, "applications", "render_processes"},
    {"foreground", 1, ValueKind::kSwitch, "applications", "foreground"},
    {"window", 1, ValueKind::kSwitch, "applications", "visible_window"},
    {"extension", 1, ValueKind::kList, "extensions", ""},
    {"task", 2, ValueKind::kList, "continuous_tasks", "types"},
    {"app-resources", 2, ValueKind::kNumber, "/efficiency_resources/applications", "resources"},
    {"process-resources", 2, ValueKind::kNumber, "/efficiency_resources/processes", "resources"},
};

std::optional<std::vector<int64_t>> NumbersOf(std::string_view text, char separator) {
    std::vector<int64_t> numbers;
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
    const auto ids =
        text.size() == name.size() ? std::vector<int64_t>() : NumbersOf(text.substr(name.size() + 1), ':');
    if (!ids || ids->size() != key->ids) {
        static constexpr const char* kForms[] = {"", ":UID", ":UID:PID"};
        return Failure(fmt::format("key {} is not of the form {}{}", text, name, kForms[key->ids]));
    }
    return DeviceSetting{key, *ids, false, {}};
}

// An entry's identity: {"uid": N} or {"uid": N, "pid": M}.
ordered_json IdentityOf(const std::vector<int64_t>& ids) {
    ordered_json identity{{"uid", ids[0]}};
    if (ids.size() > 1) {
        identity["pid"] = ids[1];
    }
    return identity;
}

bool Has(const ordered_json& entry, const ordered_json& identity) {
    return std::ranges::all_of(identity.items(),
                               [&](const auto& item) { return entry.at(item.key()) == item.value(); });
}

void Remove(ordered_json& list, const ordered_json& identity) {
    auto kept = ordered_json::array();
    std::ranges::copy_if(list, std::back_inserter(kept),
                         [&](const ordered_json& entry) { return !Has(entry, identity); });
    list = std::move(kept);
}

// In each entry of that identity; in a new one where there is none.
void Set(ordered_json& list, const ordered_json& identity, const std::string& member,
         const ordered_json& value) {
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

ordered_json& ListOf(ordered_json& state, std::string_view name) {
    const bool isPath = name.starts_with('/');
    ordered_json& list =
        isPath ? state[ordered_json::json_pointer(std::string(name))] : state[std::string(name)];
    if (list.is_null()) {
        list = ordered_json::array();
    }
    return list;
}

}  // namespace

Linux::Result<DeviceSetting> ParseDeviceSetting(std::string_view key, std::string_view value) {
    auto setting = ParseKey(key);
    if (!setting) {
        return setting;
    }
    const ValueKind kind = setting->key->kind;
    if (kind == ValueKind::kSwitch) {
        setting->isOn = value == "on";
        return value == "on" || value == "off" ? setting : Failure(fmt::format("{} takes on or off", key));
    }
    const auto values = value == "none" ? std::vector<int64_t>() : NumbersOf(value, ',');
    if (!values || (kind == ValueKind::kNumber && values->size() > 1)) {
        return Failure(fmt::format("{} takes numbers or none, not {}", key, value));
    }
    setting->values = *values;
    return setting;
}

void Apply(const DeviceSetting& setting, ordered_json& state) {
    const DeviceKey& key = *setting.key;
    const std::string member(key.member);
    if (key.list.empty()) {
        state[member] = setting.isOn;
        return;
    }
    ordered_json& list = ListOf(state, key.list);
    const ordered_json identity = IdentityOf(setting.ids);
    if (key.kind == ValueKind::kSwitch) {
        Set(list, identity, member, setting.isOn);
    } else if (member.empty()) {
        Remove(list, identity);
        for (const int64_t pid : setting.values) {
            list.emplace_back(IdentityOf({setting.ids[0], pid}));
        }
    } else if (setting.values.empty() && key.name != "render") {
        Remove(list, identity);
    } else if (key.kind == ValueKind::kNumber) {
        Set(list, identity, member, setting.values[0]);
    } else {
        Set(list, identity, member, setting.values);
    }
}

}  // namespace KITE::Rqctl
