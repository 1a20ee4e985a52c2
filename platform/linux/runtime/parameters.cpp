#include "parameters.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>

#include "base/file_names.h"
#include "base/json_node.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE {

namespace {

using Linux::JsonNode;
using nlohmann::json;

constexpr std::string_view kTrueTexts[] = {"1", "y", "yes", "on", "true"};
constexpr std::string_view kFalseTexts[] = {"0", "n", "no", "off", "false"};

// Absent for a value that is neither a text, a number nor a truth value.
std::optional<std::string> TextOf(const json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_number() || value.is_boolean()) {
        return value.dump();
    }
    return std::nullopt;
}

// Whatever other parameters hold, the one that is asked for is told.
std::optional<std::string> FindIn(const JsonNode& parameters, const std::string& key) {
    const JsonNode parameter = parameters.Optional(key);
    if (!parameter.IsPresent()) {
        return std::nullopt;
    }
    std::optional<std::string> text = TextOf(*parameter.Value());
    if (!text) {
        parameter.Fail("must be a string, a number, true or false");
    }
    return text;
}

// The store is small and asked a few times in a process's life, so it is read for each question.
std::optional<std::string> FindParameter(const std::string& key) {
    const auto found = Linux::ReadJsonFile(Linux::GetSettings().etcDirectory + Linux::FileName::kParameters,
                                           [&](const JsonNode& root) { return FindIn(root, key); });
    if (!found && found.Code() != Linux::ErrorOf(ENOENT)) {
        PLATFORM_LOGE("parameter %{public}s cannot be read: %{public}s", key.c_str(),
                      found.Why().Text().c_str());
    }
    return found ? *found : std::nullopt;
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
