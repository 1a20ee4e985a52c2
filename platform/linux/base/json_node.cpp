#include "base/json_node.h"

#include <algorithm>

namespace KITE::Linux {

namespace {

using nlohmann::json;

std::string Join(const std::string& path, std::string_view key) {
    return path + (path.empty() ? "" : ".") + std::string(key);
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

bool JsonNode::Is(bool (json::*isOfKind)() const, std::string_view faultIfNot) const {
    if (!IsPresent()) {
        return false;
    }
    if (!(value_->*isOfKind)()) {
        Fail(faultIfNot);
        return false;
    }
    return true;
}

bool JsonNode::IsObject() const {
    return Is(&json::is_object, "must be an object");
}

void JsonNode::AllowKeys(std::initializer_list<std::string_view> keys) const {
    if (!IsObject()) {
        return;
    }
    for (const auto& [key, value] : value_->items()) {
        if (std::ranges::find(keys, key) == keys.end()) {
            JsonNode(nullptr, Join(path_, key), fault_).Fail("unknown key");
        }
    }
}

JsonNode JsonNode::Optional(std::string_view key) const {
    const json* member = nullptr;
    if (IsObject()) {
        const auto found = value_->find(key);
        member = found == value_->end() ? nullptr : &*found;
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
    if (Is(&json::is_array, "must be an array")) {
        for (size_t i = 0; i < value_->size(); ++i) {
            elements.push_back(JsonNode(&(*value_)[i], path_ + '[' + std::to_string(i) + ']', fault_));
        }
    }
    return elements;
}

std::vector<std::pair<std::string, JsonNode>> JsonNode::Members() const {
    std::vector<std::pair<std::string, JsonNode>> members;
    if (IsObject()) {
        for (const auto& [key, value] : value_->items()) {
            members.emplace_back(key, JsonNode(&value, Join(path_, key), fault_));
        }
    }
    return members;
}

bool JsonNode::Bool(bool absent) const {
    return Is(&json::is_boolean, "must be true or false") ? value_->get<bool>() : absent;
}

std::string JsonNode::Text() const {
    return Is(&json::is_string, "must be a string") ? value_->get<std::string>() : std::string();
}

int64_t JsonNode::Integer(int64_t minimum, int64_t maximum) const {
    if (!Is(&json::is_number_integer, "must be an integer")) {
        return minimum;
    }
    // A number above the signed range comes back negative.
    const auto number = value_->get<int64_t>();
    const bool isAboveAll = value_->is_number_unsigned() && number < 0;
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
