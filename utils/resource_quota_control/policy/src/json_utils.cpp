#include "json_utils.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using nlohmann::json;

constexpr size_t kMaxPathLength = 4096;

// The quote that ends the string whose text begins at `start`, or the end of all.
size_t EndOfString(std::string_view text, size_t start) {
    size_t quote = text.find('"', start);
    while (quote < text.size() && (quote - text.find_last_not_of('\\', quote - 1)) % 2 == 0) {
        quote = text.find('"', quote + 1);
    }
    return std::min(quote, text.size());
}

// How each character outside strings changes the depth. A table look-up and a search for the end of each
// string take a third of the time of comparisons.
constexpr int8_t kStringBegins = 2;
constexpr auto kDepthChanges = [] {
    std::array<int8_t, 256> changes{};
    changes['['] = changes['{'] = 1;
    changes[']'] = changes['}'] = -1;
    changes['"'] = kStringBegins;
    return changes;
}();

// Counts brackets outside strings; exact for valid JSON, and what is not valid does not parse anyway.
bool IsDeeperThan(std::string_view text, int64_t limit) {
    int64_t depth = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const int8_t change = kDepthChanges[static_cast<unsigned char>(text[i])];
        if (change == 0) {
            continue;
        }
        if (change == kStringBegins) {
            i = EndOfString(text, i + 1);
        } else if ((depth += change) > limit) {
            return true;
        }
    }
    return false;
}

json ParseText(const std::string& text) {
    constexpr bool kAllowExceptions = false;
    constexpr bool kIgnoreComments = false;
    if (IsDeeperThan(text, JsonUtil::kMaxDepth)) {
        return json(json::value_t::discarded);
    }
    return json::parse(text, nullptr, kAllowExceptions, kIgnoreComments);
}

// A string that is told the size takes a fifth of the time of a string stream, which grows by doubling. The
// size is a hint: the file may change meanwhile, and not every file has one.
std::string ReadToEnd(std::ifstream& file, const std::string& path) {
    std::error_code sizeIsUnknown;
    const auto size = std::filesystem::file_size(path, sizeIsUnknown);
    std::string text;
    text.reserve(sizeIsUnknown ? 0 : size);
    std::array<char, 16384> piece;
    do {
        file.read(piece.data(), piece.size());
        text.append(piece.data(), static_cast<size_t>(file.gcount()));
    } while (file);
    return text;
}

// The member if it is of the type asked for, else null. Works for const and for given-up documents.
template <typename Json, typename IsOfType>
auto* FindMember(Json& object, const std::string& key, IsOfType isOfType) {
    using Member = std::remove_reference_t<decltype(*object.find(key))>;
    if (key.empty() || !object.is_object()) {
        return static_cast<Member*>(nullptr);
    }
    const auto member = object.find(key);
    return member != object.end() && isOfType(*member) ? &*member : nullptr;
}

constexpr auto kIsString = [](const json& value) { return value.is_string(); };
constexpr auto kIsInteger = [](const json& value) { return value.is_number_integer(); };
constexpr auto kIsObject = [](const json& value) { return value.is_object(); };
constexpr auto kIsArray = [](const json& value) { return value.is_array(); };

template <typename IsOfType>
bool CopyMember(const json& object, const std::string& key, IsOfType isOfType, json& value) {
    const json* member = FindMember(object, key, isOfType);
    if (member == nullptr) {
        return false;
    }
    value = *member;
    return true;
}

template <typename IsOfType>
bool MoveMember(json& object, const std::string& key, IsOfType isOfType, json& value) {
    json* member = FindMember(object, key, isOfType);
    if (member == nullptr) {
        return false;
    }
    value = std::move(*member);
    return true;
}

}  // namespace

bool JsonUtil::GetRealPath(const std::string& path, std::string& realPath) {
    if (path.size() > kMaxPathLength) {
        return false;
    }
    std::array<char, PATH_MAX> resolved{};
    if (realpath(path.c_str(), resolved.data()) == nullptr) {
        return false;
    }
    realPath = resolved.data();
    return true;
}

bool JsonUtil::ReadFileToString(const std::string& path, std::string& content) {
    std::string realPath;
    if (!GetRealPath(path, realPath)) {
        return false;
    }
    RQC_LOGI("realPath is [%{public}s]", path.c_str());
    std::ifstream file(realPath);
    if (!file.is_open()) {
        return false;
    }
    content = ReadToEnd(file, realPath);
    return true;
}

bool JsonUtil::LoadJsonObjFromFile(json& json, const std::string& path) {
    std::string text;
    if (!ReadFileToString(path, text)) {
        RQC_LOGE("Cannot read json file [%{public}s]", path.c_str());
        return false;
    }
    json = ParseText(text);
    if (json.is_discarded()) {
        RQC_LOGE("%{public}s transit to json failed", text.c_str());
        return false;
    }
    return true;
}

bool JsonUtil::GetStringFromJsonObj(const json& json, const std::string& key, std::string& value) {
    const auto* member = FindMember(json, key, kIsString);
    if (member == nullptr) {
        return false;
    }
    value = member->get_ref<const std::string&>();
    return true;
}

bool JsonUtil::GetIntFromJsonObj(const json& json, const std::string& key, int32_t& value) {
    int64_t wide = 0;
    if (!GetInt64FromJsonObj(json, key, wide)) {
        return false;
    }
    value = static_cast<int32_t>(wide);
    return true;
}

bool JsonUtil::GetInt64FromJsonObj(const json& json, const std::string& key, int64_t& value) {
    const auto* member = FindMember(json, key, kIsInteger);
    if (member == nullptr) {
        return false;
    }
    value = member->get<int64_t>();
    return true;
}

bool JsonUtil::GetObjFromJsonObj(const json& json, const std::string& key, nlohmann::json& value) {
    return CopyMember(json, key, kIsObject, value);
}

bool JsonUtil::GetArrayFromJsonObj(const json& json, const std::string& key, nlohmann::json& value) {
    return CopyMember(json, key, kIsArray, value);
}

bool JsonUtil::GetObjFromJsonObj(json&& json, const std::string& key, nlohmann::json& value) {
    return MoveMember(json, key, kIsObject, value);
}

bool JsonUtil::GetArrayFromJsonObj(json&& json, const std::string& key, nlohmann::json& value) {
    return MoveMember(json, key, kIsArray, value);
}

}  // namespace KITE::ResourceQuotaCtl
