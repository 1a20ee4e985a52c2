#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/file.h"
#include "base/result.h"

// The one way to read JSON: a function takes the document's root and makes a value of it.
//
//     struct Lamp { std::string name; int32_t watts; };
//     Lamp ReadLamp(const JsonNode& node) {
//         node.AllowKeys({"name", "watts"});
//         return {node.Required("name").Text(), node.Required("watts").Number<int32_t>(1)};
//     }
//     const Result<Lamp> lamp = ReadJsonFile(path, ReadLamp);
namespace KITE::Linux {

// A place in a document. A reading function just reads everything: where the document is not as expected, it
// gets a default, and the first such place and its fault are remembered ("applications[2].uid: must be an
// integer") and become the failure of the whole. Refers to the document.
class JsonNode {
  public:
    JsonNode(const nlohmann::json& document, std::string& fault) : value_(&document), fault_(&fault) {}

    // Requires an object without other keys than these.
    void AllowKeys(std::initializer_list<std::string_view> keys) const;
    // A member of an object that may be absent; reading an absent node gives a default.
    JsonNode Optional(std::string_view key) const;
    JsonNode Required(std::string_view key) const;
    // The elements of an array.
    std::vector<JsonNode> Elements() const;
    // The members of an object, in the order of their keys.
    std::vector<std::pair<std::string, JsonNode>> Members() const;

    bool IsPresent() const noexcept { return value_ != nullptr; }
    bool Bool(bool absent) const;
    std::string Text() const;
    // An integer within the limits, which are what an int64_t can hold at most; the minimum when absent.
    template <std::integral T>
    T Number(T minimum, T maximum = std::numeric_limits<T>::max()) const {
        constexpr int64_t kHighest = std::numeric_limits<int64_t>::max();
        const int64_t highest =
            std::cmp_greater(maximum, kHighest) ? kHighest : static_cast<int64_t>(maximum);
        return static_cast<T>(Integer(static_cast<int64_t>(minimum), highest));
    }
    // The value itself, for one whose form the reader does not prescribe; null when absent.
    const nlohmann::json* Value() const noexcept { return value_; }

    // Remembers a fault at this place unless there is one already.
    void Fail(std::string_view fault) const;

  private:
    JsonNode(const nlohmann::json* value, std::string path, std::string* fault)
        : value_(value), path_(std::move(path)), fault_(fault) {}

    int64_t Integer(int64_t minimum, int64_t maximum) const;

    const nlohmann::json* value_;
    std::string path_;
    std::string* fault_;
};

// What the function makes of each element of an array.
template <typename Reader>
auto ReadList(const JsonNode& list, Reader read) {
    std::vector<std::invoke_result_t<Reader, JsonNode>> values;
    for (const JsonNode& element : list.Elements()) {
        values.push_back(std::invoke(read, element));
    }
    return values;
}

// What the function makes of a node that may be absent.
template <typename Reader>
auto ReadOptional(const JsonNode& node, Reader read) {
    return node.IsPresent() ? std::optional(read(node)) : std::nullopt;
}

// Fails with the reason, line and column of the first syntax error.
Result<nlohmann::json> ParseJson(std::string_view text);

// What the function makes of the text's root; the failure names the faulty place.
template <typename Reader>
auto ReadJson(std::string_view text, Reader read) -> Result<std::invoke_result_t<Reader, JsonNode>> {
    const Result<nlohmann::json> document = ParseJson(text);
    if (!document) {
        return document.Why();
    }
    std::string fault;
    auto value = read(JsonNode(*document, fault));
    if (!fault.empty()) {
        return Failure(std::move(fault));
    }
    return value;
}

// Likewise of a file; the failure begins with the path. Code() is ENOENT when there is no file.
template <typename Reader>
auto ReadJsonFile(const std::string& path, Reader read) -> Result<std::invoke_result_t<Reader, JsonNode>> {
    const Result<std::string> text = ReadFile(path);
    if (!text) {
        return text.Why().In(path);
    }
    auto value = ReadJson(*text, read);
    if (!value) {
        return value.Why().In(path);
    }
    return value;
}

}  // namespace KITE::Linux
