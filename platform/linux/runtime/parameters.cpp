#include "parameters.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

#include "base/json_node.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE {

namespace {

using nlohmann::json;

constexpr std::string_view kTrueTexts[] = {"1", "y", "yes", "on", "true"};
constexpr std::string_view kFalseTexts[] = {"0", "n", "no", "off", "false"};

std::optional<std::string> TextOf(const json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number() || value.is_boolean()) {
        return value.dump();
    }
    return std::nullopt;
}

// The store is small and asked a few times in a process's life, so it is read for each question.
std::optional<std::string> FindParameter(const std::string& key) {
    const std::string path = Linux::GetSettings().etcDirectory + "/parameters.json";
    json parameters;
    std::string error;
    if (!Linux::LoadJsonFile(path, parameters, error)) {
        PLATFORM_LOGE("no parameters: %{public}s", error.c_str());
        return std::nullopt;
    }
    if (!parameters.is_object()) {
        if (!parameters.is_null()) {
            PLATFORM_LOGE("no parameters: %{public}s: must be an object", path.c_str());
        }
        return std::nullopt;
    }
    const auto found = parameters.find(key);
    if (found == parameters.end()) {
        return std::nullopt;
    }
    std::optional<std::string> text = TextOf(*found);
    if (!text) {
        PLATFORM_LOGE("%{public}s: %{public}s: must be a string, a number, true or false", path.c_str(),
                      key.c_str());
    }
    return text;
}

}  // namespace

bool GetBoolParameter(const std::string& key, bool defaultValue) {
    const std::optional<std::string> text = FindParameter(key);
    if (!text) {
        return defaultValue;
    }
    if (std::ranges::find(kTrueTexts, *text) != std::end(kTrueTexts)) {
        return true;
    }
    if (std::ranges::find(kFalseTexts, *text) != std::end(kFalseTexts)) {
        return false;
    }
    PLATFORM_LOGW("parameter %{public}s is neither true nor false: %{public}s", key.c_str(), text->c_str());
    return defaultValue;
}

int32_t GetIntParameter(const std::string& key, int32_t defaultValue, int32_t minimum, int32_t maximum) {
    const std::optional<std::string> text = FindParameter(key);
    if (!text) {
        return defaultValue;
    }
    int32_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size() || value < minimum || value > maximum) {
        PLATFORM_LOGW("parameter %{public}s is not a number from %{public}d to %{public}d: %{public}s",
                      key.c_str(), minimum, maximum, text->c_str());
        return defaultValue;
    }
    return value;
}

}  // namespace KITE
