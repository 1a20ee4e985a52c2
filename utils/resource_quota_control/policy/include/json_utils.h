#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace KITE::ResourceQuotaCtl {

// Reading of JSON files and typed access to their members. Without state; any thread.
class JsonUtil {
  public:
    // Deeper documents are refused: copying one is recursive in the JSON library and would overflow the
    // stack.
    static constexpr int kMaxDepth = 512;

    JsonUtil() = delete;

    // The absolute path without symbolic links; false when it does not exist or is longer than 4096
    // characters.
    static bool GetRealPath(const std::string& path, std::string& realPath);
    // False, without a message, when the file cannot be opened.
    static bool ReadFileToString(const std::string& path, std::string& content);
    // False, with the reason logged, when the file cannot be read or holds no valid JSON (comments are not);
    // in the latter case the output is the library's discarded value.
    static bool LoadJsonObjFromFile(nlohmann::json& json, const std::string& path);

    // The member of an object under a key. False, with the output untouched and nothing logged, when the
    // value is no object, the key is empty or absent, or the member is of another type. Numbers with a
    // fraction, an exponent or quotes are no integers; an integer is cut to the output's width.
    static bool GetStringFromJsonObj(const nlohmann::json& json, const std::string& key, std::string& value);
    static bool GetIntFromJsonObj(const nlohmann::json& json, const std::string& key, int32_t& value);
    static bool GetInt64FromJsonObj(const nlohmann::json& json, const std::string& key, int64_t& value);
    static bool GetObjFromJsonObj(const nlohmann::json& json, const std::string& key, nlohmann::json& value);
    static bool GetArrayFromJsonObj(const nlohmann::json& json, const std::string& key,
                                    nlohmann::json& value);

    // The same out of a document that is given up: the member is moved, not copied.
    static bool GetObjFromJsonObj(nlohmann::json&& json, const std::string& key, nlohmann::json& value);
    static bool GetArrayFromJsonObj(nlohmann::json&& json, const std::string& key, nlohmann::json& value);
};

}  // namespace KITE::ResourceQuotaCtl
