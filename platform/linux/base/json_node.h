#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace KITE::Linux {

// The document, or a discarded value with the reason, line and column in `error`.
nlohmann::json ParseJson(const std::string& text, std::string& error);

// Reads and parses a file. False with the path and the reason in `error`, the document as it was; when the
// file does not exist, true with a null document.
bool LoadJsonFile(const std::string& path, nlohmann::json& document, std::string& error);

// A place in a document that is read into values of known types. A reader just reads everything: where the
// document is not as expected, it gets a default, and the first such place and its fault go to the error text
// that all nodes of the document share ("applications[2].uid: must be an integer"). Refers to both.
class JsonNode {
  public:
    JsonNode(const nlohmann::json& document, std::string& error) : value_(&document), error_(&error) {}

    // Requires an object without other keys than these.
    void AllowKeys(std::initializer_list<std::string_view> keys) const;
    // A member of an object that may be absent; reading an absent node gives a default.
    JsonNode Optional(std::string_view key) const;
    JsonNode Required(std::string_view key) const;
    // The elements of an array.
    std::vector<JsonNode> Elements() const;

    bool IsPresent() const noexcept { return value_ != nullptr; }
    bool Bool(bool absent) const;
    std::string Text() const;
    template <std::integral T>
    T Number(T minimum, T maximum = std::numeric_limits<T>::max()) const {
        return static_cast<T>(Integer(minimum, maximum));
    }

    // Notes a fault at this place unless there is one already.
    void Fail(std::string_view fault) const;

  private:
    JsonNode(const nlohmann::json* value, std::string path, std::string* error)
        : value_(value), path_(std::move(path)), error_(error) {}

    JsonNode Member(std::string_view key, std::string_view faultWhenAbsent) const;
    std::string PathOf(std::string_view key) const;
    int64_t Integer(int64_t minimum, int64_t maximum) const;

    const nlohmann::json* value_;
    std::string path_;
    std::string* error_;
};

}  // namespace KITE::Linux
