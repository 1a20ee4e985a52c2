#include "base/json_node.h"

#include <algorithm>

namespace KITE::Linux {

namespace {

using nlohmann::json;

// Takes nothing of a text but the first syntax error: the parser that builds a document does not tell it.
class SyntaxErrorFinder : public nlohmann::json_sax<json> {
  public:
    explicit SyntaxErrorFinder(std::string& error) : error_(error) {}

    bool null() override { return true; }
    bool boolean(bool /*value*/) override { return true; }
    bool number_integer(number_integer_t /*value*/) override { return true; }
    bool number_unsigned(number_unsigned_t /*value*/) override { return true; }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return true; }
    bool string(string_t& /*value*/) override { return true; }
    bool binary(binary_t& /*value*/) override { return true; }
    bool start_object(size_t /*elements*/) override { return true; }
    bool key(string_t& /*value*/) override { return true; }
    bool end_object() override { return true; }
    bool start_array(size_t /*elements*/) override { return true; }
    bool end_array() override { return true; }

    bool parse_error(size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& exception) override {
        // The library's text starts with the exception's name in brackets.
        const std::string_view text = exception.what();
        const size_t nameEnd = text.find("] ");
        error_ = text.substr(nameEnd == std::string_view::npos ? 0 : nameEnd + 2);
        return false;
    }

  private:
    std::string& error_;
};

}  // namespace

Result<json> ParseJson(std::string_view text) {
    json document = json::parse(text, nullptr, false);
    if (document.is_discarded()) {
        std::string reason;
        SyntaxErrorFinder finder(reason);
        json::sax_parse(text, &finder);
        return Failure(std::move(reason));
    }
    return document;
}

void JsonNode::AllowKeys(std::initializer_list<std::string_view> keys) const {
    if (!IsPresent()) {
        return;
    }
    if (!value_->is_object()) {
        Fail("must be an object");
        return;
    }
    for (const auto& [key, value] : value_->items()) {
        if (std::ranges::find(keys, key) == keys.end()) {
            JsonNode(nullptr, PathOf(key), fault_).Fail("unknown key");
        }
    }
}

JsonNode JsonNode::Optional(std::string_view key) const {
    return Member(key, "");
}

JsonNode JsonNode::Required(std::string_view key) const {
    return Member(key, "missing");
}

JsonNode JsonNode::Member(std::string_view key, std::string_view faultWhenAbsent) const {
    if (IsPresent() && !value_->is_object()) {
        Fail("must be an object");
    } else if (IsPresent()) {
        if (const auto member = value_->find(key); member != value_->end()) {
            return {&*member, PathOf(key), fault_};
        }
    }
    JsonNode absent(nullptr, PathOf(key), fault_);
    if (!faultWhenAbsent.empty()) {
        absent.Fail(faultWhenAbsent);
    }
    return absent;
}

std::vector<JsonNode> JsonNode::Elements() const {
    std::vector<JsonNode> elements;
    if (!IsPresent()) {
        return elements;
    }
    if (!value_->is_array()) {
        Fail("must be an array");
        return elements;
    }
    elements.reserve(value_->size());
    for (size_t i = 0; i < value_->size(); ++i) {
        elements.push_back(JsonNode(&(*value_)[i], path_ + '[' + std::to_string(i) + ']', fault_));
    }
    return elements;
}

std::vector<std::pair<std::string, JsonNode>> JsonNode::Members() const {
    std::vector<std::pair<std::string, JsonNode>> members;
    if (!IsPresent()) {
        return members;
    }
    if (!value_->is_object()) {
        Fail("must be an object");
        return members;
    }
    for (const auto& [key, value] : value_->items()) {
        members.emplace_back(key, JsonNode(&value, PathOf(key), fault_));
    }
    return members;
}

bool JsonNode::Bool(bool absent) const {
    if (!IsPresent()) {
        return absent;
    }
    if (!value_->is_boolean()) {
        Fail("must be true or false");
        return absent;
    }
    return value_->get<bool>();
}

std::string JsonNode::Text() const {
    if (!IsPresent()) {
        return {};
    }
    if (!value_->is_string()) {
        Fail("must be a string");
        return {};
    }
    return value_->get<std::string>();
}

int64_t JsonNode::Integer(int64_t minimum, int64_t maximum) const {
    if (!IsPresent()) {
        return minimum;
    }
    if (!value_->is_number_integer()) {
        Fail("must be an integer");
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

std::string JsonNode::PathOf(std::string_view key) const {
    std::string path = path_;
    path += path.empty() ? "" : ".";
    path += key;
    return path;
}

}  // namespace KITE::Linux
