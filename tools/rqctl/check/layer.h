#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace KITE::Rqctl {

struct Layer;

// Both count from 1; columns are characters.
struct Position {
    size_t line = 1;
    size_t column = 1;
};

// A value of a layer and where it stands, by offsets into the text.
struct JsonValue {
    using Type = nlohmann::json::value_t;

    const Layer* layer = nullptr;
    JsonValue* parent = nullptr;  // null for the document
    Type type{};
    size_t begin = 0;
    size_t end = 0;                 // behind it; of an object or a list, behind its opening bracket
    std::string text;               // of a string
    int64_t number = 0;             // of an integer, cut to 64 bits as the service cuts it
    bool isCut = false;             // whether that made it another
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
    Position Place() const;
    // As it stands in the text, shortened; an object or a list by its kind.
    std::string Excerpt() const;
};

// Why the service cannot read a text.
struct JsonFault {
    size_t offset = 0;
    std::string found;
    std::string allowed;
};

// A quota file, read as the service reads it, which takes nothing nested deeper than JsonUtil::kMaxDepth. Its
// values refer to it.
struct Layer {
    Layer(const std::string& file, size_t order);
    Layer(const Layer&) = delete;
    Layer& operator=(const Layer&) = delete;

    Position PositionOf(size_t offset) const;

    const std::string path;
    const size_t number;  // in the order of merging
    std::string text;
    JsonValue root;
    std::optional<JsonFault> fault;  // also where the file cannot be read
};

// In the order of merging.
using Layers = std::list<Layer>;

// The quota files that paths mean: a directory stands for the quota file of that configuration directory.
// Without paths: those of the installed directories, as the service finds them.
std::vector<std::string> QuotaFilesOf(const std::vector<std::string>& paths);
Layers ReadLayers(const std::vector<std::string>& files);

}  // namespace KITE::Rqctl
