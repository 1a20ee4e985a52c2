#include "parameters.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "base/file_names.h"
#include "base/json_node.h"
#include "base/text.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE {

namespace {

using Linux::JsonNode;

constexpr std::string_view kTrueTexts[] = {"1", "y", "yes", "on", "true"};
constexpr std::string_view kFalseTexts[] = {"0", "n", "no", "off", "false"};

// Absent for a parameter that is not there. The other parameters may hold anything.
std::optional<std::string> TextOf(const JsonNode& parameter) {
    const nlohmann::json* value = parameter.Value();
    if (value == nullptr) {
        return std::nullopt;
    }
    if (value->is_structured() || value->is_null()) {
        parameter.Fail("must be a string, a number, true or false");
    }
    return value->is_string() ? value->get<std::string>() : value->dump();
}

// The store is small and asked a few times in a process's life, so it is read for each question.
std::optional<std::string> FindParameter(const std::string& key) {
    const auto found = Linux::ReadJsonFile(Linux::GetSettings().etcDirectory + Linux::FileName::kParameters,
                                           [&](const JsonNode& root) { return TextOf(root.Optional(key)); });
    if (!found && !Linux::Is(found.Code(), ENOENT)) {
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
    const std::optional<int64_t> value = Linux::ParseDecimal(*text);
    if (!value || *value < minimum || *value > maximum) {
        PLATFORM_LOGW("parameter %{public}s is not a number from %{public}d to %{public}d: %{public}s",
                      key.c_str(), minimum, maximum, text->c_str());
        return defaultValue;
    }
    return static_cast<int32_t>(*value);
}

}  // namespace KITE
