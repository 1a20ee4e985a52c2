#include "base/json_node.h"

#include <algorithm>

namespace KITE::Linux {

namespace {

using nlohmann::json;

std::string Join(const std::string& path, std::string_view key) {
    return path + (path.empty() ? "" : ".") + std::string(key);
}

// The node's value if it is of that kind; one of another kind is a fault. Null otherwise.
const json* ValueOf(const JsonNode& node, bool (json::*isOfKind)() const, std::string_view faultIfNot) {
    const json* value = node.Value();
    if (value != nullptr && !(value->*isOfKind)()) {
        node.Fail(faultIfNot);
        return nullptr;
    }
    return value;
}

const json* ObjectOf(const JsonNode& node) {
    return ValueOf(node, &json::is_object, "must be an object");
}

}  // namespace

Result<json> ParseJson(std::string_view text) {
    try {
        return json::parse(text);
    } catch (const json::exception& exception) {
        // The library's text starts with the exception's name in brackets.
        const std::string_view reason = exception.what();
        const size_t nameEnd = reason.find("] ");
        return Failure(std::string(reason.substr(nameEnd == std::string_view::npos ? 0 : nameEnd + 2)));
    }
}

void JsonNode::AllowKeys(std::initializer_list<std::string_view> keys) const {
    for (const auto& [key, member] : Members()) {
        if (std::ranges::find(keys, key) == keys.end()) {
            member.Fail("unknown key");
        }
    }
}

JsonNode JsonNode::Optional(std::string_view key) const {
    const json* member = nullptr;
    if (const json* object = ObjectOf(*this); object != nullptr && object->contains(key)) {
        member = &object->at(key);
    }
    return {member, Join(path_, key), fault_};
}

JsonNode JsonNode::Required(std::string_view key) const {
    JsonNode member = Optional(key);
    if (!member.IsPresent()) {
        member.Fail("missing");
    }
    return member;
}

std::vector<JsonNode> JsonNode::Elements() const {
    std::vector<JsonNode> elements;
    if (const json* array = ValueOf(*this, &json::is_array, "must be an array")) {
        for (const json& element : *array) {
            elements.push_back({&element, path_ + '[' + std::to_string(elements.size()) + ']', fault_});
        }
    }
    return elements;
}

std::vector<std::pair<std::string, JsonNode>> JsonNode::Members() const {
    std::vector<std::pair<std::string, JsonNode>> members;
    if (const json* object = ObjectOf(*this)) {
        for (const auto& [key, value] : object->items()) {
            members.emplace_back(key, JsonNode(&value, Join(path_, key), fault_));
        }
    }
    return members;
}

bool JsonNode::Bool(bool absent) const {
    const json* value = ValueOf(*this, &json::is_boolean, "must be true or false");
    return value == nullptr ? absent : value->get<bool>();
}

std::string JsonNode::Text() const {
    const json* value = ValueOf(*this, &json::is_string, "must be a string");
    return value == nullptr ? std::string() : value->get<std::string>();
}

int64_t JsonNode::Integer(int64_t minimum, int64_t maximum) const {
    const json* value = ValueOf(*this, &json::is_number_integer, "must be an integer");
    if (value == nullptr) {
        return minimum;
    }
    // A number above the signed range comes back negative.
    const auto number = value->get<int64_t>();
    const bool isAboveAll = value->is_number_unsigned() && number < 0;
    if (isAboveAll || number < minimum || number > maximum) {
        Fail("must lie between " + std::to_string(minimum) + " and " + std::to_string(maximum));
        return minimum;
    }
    return number;
}

void JsonNode::Fail(std::string_view fault) const {
    if (fault_->empty()) {
        *fault_ = path_.empty() ? "the document" : path_;
        *fault_ += ": ";
        *fault_ += fault;
    }
}

}  // namespace KITE::Linux
