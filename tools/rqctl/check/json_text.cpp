#include "rqctl/check/json_text.h"

#include <algorithm>
#include <utility>

#include "json_utils.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::json;

constexpr size_t kMaxDepth = ResourceQuotaCtl::JsonUtil::kMaxDepth;

// Finds the tokens of a text for a parser that knows their meaning: called once for each that is no comma,
// colon or closing bracket, in order.
class TokenFinder {
  public:
    explicit TokenFinder(std::string_view text) : text_(text) {}

    // Moves to the next token; begin and end are then its own.
    void Next() {
        begin = std::min(text_.find_first_not_of(" \t\r\n,:]}", end), text_.size());
        end = begin + LengthAt(begin);
    }

    size_t begin = 0;
    size_t end = 0;

  private:
    size_t LengthAt(size_t at) const {
        if (at == text_.size() || text_[at] == '{' || text_[at] == '[') {
            return at == text_.size() ? 0 : 1;
        }
        if (text_[at] != '"') {
            return std::min(text_.find_first_of(" \t\r\n,:]}", at), text_.size()) - at;
        }
        size_t last = at + 1;
        while (last < text_.size() && text_[last] != '"') {
            last += text_[last] == '\\' ? 2 : 1;
        }
        return std::min(last + 1, text_.size()) - at;
    }

    std::string_view text_;
};

// Makes values of the JSON library's events. Null on every way out of a callback means: stop.
class TreeBuilder : public nlohmann::json_sax<json> {
  public:
    explicit TreeBuilder(JsonText& text) : text_(text), tokens_(text.text) {}

    bool null() override { return AddScalar(json::value_t::null); }
    bool boolean(bool /*value*/) override { return AddScalar(json::value_t::boolean); }
    bool number_integer(number_integer_t value) override {
        Add(json::value_t::number_integer).number = value;
        return true;
    }
    bool number_unsigned(number_unsigned_t value) override {
        JsonValue& integer = Add(json::value_t::number_unsigned);
        integer.number = static_cast<int64_t>(value);
        integer.isCut = integer.number < 0;
        return true;
    }
    bool number_float(number_float_t /*value*/, const string_t& /*raw*/) override {
        return AddScalar(json::value_t::number_float);
    }
    bool string(string_t& value) override {
        Add(json::value_t::string).text = std::move(value);
        return true;
    }
    bool binary(binary_t& /*value*/) override { return false; }
    bool start_object(size_t /*size*/) override { return Open(json::value_t::object); }
    bool start_array(size_t /*size*/) override { return Open(json::value_t::array); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }

    bool key(string_t& name) override {
        tokens_.Next();
        key_ = std::move(name);
        keyBegin_ = tokens_.begin;
        return true;
    }

    bool parse_error(size_t read, const std::string& lastToken,
                     const nlohmann::detail::exception& error) override {
        const std::string_view message = error.what();
        const size_t reason = message.find(" - ");
        std::string found(reason == std::string_view::npos ? message.substr(message.find("] ") + 2)
                                                           : message.substr(reason + 3));
        found = found.substr(0, found.find("; "));
        // The parser has read a whole literal before it finds it out of place.
        const bool isLiteral = found.starts_with("unexpected string") || found.starts_with("unexpected num");
        const size_t length = isLiteral ? lastToken.size() : 1;
        text_.fault = {std::min(read - std::min(read, length), text_.text.size()), std::move(found),
                       "JSON, without comments and without a comma behind the last element"};
        return false;
    }

  private:
    JsonValue& Add(json::value_t type) {
        tokens_.Next();
        JsonValue& value = open_.empty() ? text_.root : open_.back()->children.emplace_back();
        value.type = type;
        value.begin = tokens_.begin;
        value.end = tokens_.end;
        value.key = std::exchange(key_, {});
        value.keyBegin = keyBegin_;
        return value;
    }

    bool AddScalar(json::value_t type) {
        Add(type);
        return true;
    }

    bool Open(json::value_t type) {
        JsonValue& value = Add(type);
        if (open_.size() == kMaxDepth) {
            text_.fault = {value.begin, "nested deeper than " + std::to_string(kMaxDepth),
                           "at most " + std::to_string(kMaxDepth) + " levels"};
            return false;
        }
        open_.push_back(&value);
        return true;
    }

    bool Close() {
        open_.pop_back();
        return true;
    }

    JsonText& text_;
    TokenFinder tokens_;
    std::vector<JsonValue*> open_;  // a value's children grow only while it is the last of these
    std::string key_;
    size_t keyBegin_ = 0;
};

bool IsCharacterStart(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

constexpr size_t kStretch = 1024;

// The position behind a text that begins at the given one.
Position Behind(Position at, std::string_view passed) {
    const size_t lineBegin = passed.rfind('\n') + 1;
    if (lineBegin > 0) {
        at = {at.line + static_cast<size_t>(std::ranges::count(passed, '\n')), 1};
    }
    at.column += static_cast<size_t>(std::ranges::count_if(passed.substr(lineBegin), IsCharacterStart));
    return at;
}

// A byte order mark is no character of the text.
std::string WithoutMark(std::string text) {
    constexpr std::string_view kMark = "\xEF\xBB\xBF";
    return text.starts_with(kMark) ? text.substr(kMark.size()) : std::move(text);
}

}  // namespace

const JsonValue* JsonValue::Find(std::string_view name) const {
    if (!IsObject()) {
        return nullptr;
    }
    const auto found = std::find_if(children.rbegin(), children.rend(),
                                    [name](const JsonValue& member) { return member.key == name; });
    return found == children.rend() ? nullptr : &*found;
}

JsonText::JsonText(std::string content) : text(WithoutMark(std::move(content))), stretches_(1) {
    for (std::string_view rest = text; rest.size() >= kStretch; rest.remove_prefix(kStretch)) {
        stretches_.push_back(Behind(stretches_.back(), rest.substr(0, kStretch)));
    }
    TreeBuilder builder(*this);
    json::sax_parse(text, &builder);
}

Position JsonText::PositionOf(size_t offset) const {
    const size_t stretch = offset / kStretch;
    return Behind(stretches_[stretch], std::string_view(text).substr(stretch * kStretch, offset % kStretch));
}

std::string JsonText::Shown(const JsonValue& value) const {
    if (value.IsObject() || value.IsArray()) {
        return value.IsObject() ? "an object" : "a list";
    }
    constexpr size_t kMostShown = 60;
    if (value.end - value.begin <= kMostShown) {
        return text.substr(value.begin, value.end - value.begin);
    }
    size_t length = kMostShown;
    while (!IsCharacterStart(text[value.begin + length])) {
        --length;
    }
    return text.substr(value.begin, length) + "...";
}

std::string Below(const std::string& pointer, std::string_view key) {
    std::string below = pointer + '/';
    for (const char c : key) {
        below += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return below;
}

std::string Below(const std::string& pointer, size_t index) {
    return pointer + '/' + std::to_string(index);
}

}  // namespace KITE::Rqctl
