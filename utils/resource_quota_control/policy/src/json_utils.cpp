#include "json_utils.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <tuple>
#include <utility>

#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

namespace {

using nlohmann::json;

constexpr size_t kMaxPathLength = 4096;
constexpr bool kThrow = false;
constexpr bool kIgnoreComments = false;

// Reads the text with the library's own parser, which keeps nothing of it. The check has a pass of its own: a
// parse with a callback that keeps values looks at a whole list again after each of its elements.
bool IsTooDeep(const std::string& text) {
    bool isTooDeep = false;
    const auto watch = [&isTooDeep](int depth, json::parse_event_t event, const json& /*value*/) {
        const bool isStart =
            event == json::parse_event_t::object_start || event == json::parse_event_t::array_start;
        isTooDeep = isTooDeep || (isStart && depth >= JsonUtil::kMaxDepth);
        return false;
    };
    std::ignore = json::parse(text, watch, kThrow, kIgnoreComments);
    return isTooDeep;
}

json ParseText(const std::string& text) {
    return IsTooDeep(text) ? json(json::value_t::discarded)
                           : json::parse(text, nullptr, kThrow, kIgnoreComments);
}

// Null when the value is no object or has no such member. Json is json or const json.
template <typename Json>
Json* FindMember(Json& object, const std::string& key) {
    if (key.empty() || !object.is_object()) {
        return nullptr;
    }
    const auto member = object.find(key);
    return member == object.end() ? nullptr : &*member;
}

// Copies the member out of a const document, and moves it out of any other.
template <typename Json>
bool GetStructure(Json& object, const std::string& key, json::value_t type, json& value) {
    Json* const member = FindMember(object, key);
    if (member == nullptr || member->type() != type) {
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
    const std::ifstream file(realPath);
    if (!file.is_open()) {
        return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    content = std::move(text).str();
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
    const auto* member = FindMember(json, key);
    if (member == nullptr || !member->is_string()) {
        return false;
    }
    value = member->get<std::string>();
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
    const auto* member = FindMember(json, key);
    if (member == nullptr || !member->is_number_integer()) {
        return false;
    }
    value = member->get<int64_t>();
    return true;
}

bool JsonUtil::GetObjFromJsonObj(const json& json, const std::string& key, nlohmann::json& value) {
    return GetStructure(json, key, nlohmann::json::value_t::object, value);
}

bool JsonUtil::GetArrayFromJsonObj(const json& json, const std::string& key, nlohmann::json& value) {
    return GetStructure(json, key, nlohmann::json::value_t::array, value);
}

bool JsonUtil::GetObjFromJsonObj(json&& json, const std::string& key, nlohmann::json& value) {
    return GetStructure(json, key, nlohmann::json::value_t::object, value);
}

bool JsonUtil::GetArrayFromJsonObj(json&& json, const std::string& key, nlohmann::json& value) {
    return GetStructure(json, key, nlohmann::json::value_t::array, value);
}

}  // namespace KITE::ResourceQuotaCtl
