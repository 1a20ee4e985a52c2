#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace KITE::Rqctl {

// Both count from 1; columns are characters.
struct Position {
    size_t line = 1;
    size_t column = 1;
};

// A value of a JSON text and where it stands, by offsets into the text.
struct JsonValue {
    using Type = nlohmann::json::value_t;

    Type type{};
    size_t begin = 0;
    size_t end = 0;                 // behind it; of an object or a list, behind its opening bracket
    std::string text;               // of a string
    int64_t number = 0;             // of an integer, cut to 64 bits as the service cuts it
    bool isCut = false;             // whether that made it another
    JsonValue* parent = nullptr;    // null for the document
    std::string key;                // of a member of an object; of an element its number
    size_t keyBegin = 0;            // of a member
    std::list<JsonValue> children;  // elements, or members as they stand, also those of the same key

    bool IsObject() const { return type == Type::object; }
    bool IsArray() const { return type == Type::array; }
    bool IsString() const { return type == Type::string; }
    bool IsInteger() const { return type == Type::number_integer || type == Type::number_unsigned; }
    // The last member of that key, which is the one that counts; null when there is none.
    const JsonValue* Find(std::string_view name) const;
    nlohmann::json::json_pointer Pointer() const;
};

// Why the service cannot read a text.
struct JsonFault {
    size_t offset = 0;
    std::string found;
    std::string allowed;
};

// A text, read as the service's parser reads it, which takes nothing nested deeper than JsonUtil::kMaxDepth.
struct JsonText {
    explicit JsonText(std::string content);

    Position PositionOf(size_t offset) const;
    // The value as it stands in the text, shortened; an object or a list by its kind.
    std::string Excerpt(const JsonValue& value) const;

    std::string text;
    std::unique_ptr<JsonValue> root = std::make_unique<JsonValue>();
    std::optional<JsonFault> fault;
};

}  // namespace KITE::Rqctl
