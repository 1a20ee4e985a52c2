#include "rqctl/check/layer.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <utility>

#include "base/result.h"
#include "json_utils.h"
#include "res_policy_manager.h"

namespace KITE::Rqctl {

namespace {

using nlohmann::json;
using ResourceQuotaCtl::JsonUtil;
using ResourceQuotaCtl::ResPolicyManager;

constexpr int kMaxDepth = JsonUtil::kMaxDepth;
// What stands between tokens; the parser tells of no token for a closing bracket.
constexpr const char* kSeparators = " \t\r\n,:]}";

// Makes values of the JSON library's events. The library does not tell where a token stands, but the stream
// knows how far it has read: a token lies between the end of the one before it and there.
class TreeBuilder : public nlohmann::json_sax<json> {
  public:
    explicit TreeBuilder(Layer& layer) : layer_(layer), stream_(layer.text) {
        json::sax_parse(stream_, this);
    }

    bool null() override { return Add(json::value_t::null); }
    bool boolean(bool /*value*/) override { return Add(json::value_t::boolean); }
    bool number_integer(number_integer_t value) override {
        return Add(json::value_t::number_integer, {}, value);
    }
    bool number_unsigned(number_unsigned_t value) override {
        return Add(json::value_t::number_unsigned, {}, static_cast<int64_t>(value));
    }
    bool number_float(number_float_t /*value*/, const string_t& /*raw*/) override {
        return Add(json::value_t::number_float);
    }
    bool string(string_t& value) override { return Add(json::value_t::string, std::move(value)); }
    bool binary(binary_t& /*value*/) override { return false; }
    bool start_object(size_t /*size*/) override { return Open(json::value_t::object); }
    bool start_array(size_t /*size*/) override { return Open(json::value_t::array); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }
    bool key(string_t& name) override {
        key_ = std::move(name);
        keyBegin_ = NextToken();
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
        layer_.fault = {std::min(read - std::min(read, length), layer_.text.size()), std::move(found),
                        "JSON, without comments and without a comma after the last element"};
        return false;
    }

  private:
    // Where the token begins that was just read.
    size_t NextToken() {
        const size_t begin = layer_.text.find_first_not_of(kSeparators, end_);
        end_ = static_cast<size_t>(stream_.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
        return begin;
    }

    bool Add(json::value_t type, std::string text = {}, int64_t number = 0) {
        last_ = open_ == nullptr ? &layer_.root : &open_->children.emplace_back();
        JsonValue& value = *last_;
        value.layer = &layer_;
        value.type = type;
        value.text = std::move(text);
        value.number = number;
        value.isCut = type == json::value_t::number_unsigned && number < 0;
        value.begin = NextToken();
        // To see the end of a number, the parser has read one byte more.
        value.end = layer_.text.find_last_not_of(kSeparators, end_ - 1) + 1;
        value.parent = open_;
        const bool isElement = open_ != nullptr && open_->IsArray();
        value.key = isElement ? std::to_string(open_->children.size() - 1) : std::exchange(key_, {});
        value.keyBegin = keyBegin_;
        return true;
    }

    bool Open(json::value_t type) {
        Add(type);
        if (depth_ == kMaxDepth) {
            layer_.fault = {last_->begin, fmt::format("nested deeper than {}", kMaxDepth),
                            fmt::format("at most {} levels", kMaxDepth)};
            return false;
        }
        open_ = last_;
        ++depth_;
        return true;
    }

    bool Close() {
        open_ = open_->parent;
        --depth_;
        return true;
    }

    Layer& layer_;
    std::istringstream stream_;
    size_t end_ = 0;             // of the token that was read last
    JsonValue* last_ = nullptr;  // the value that was added last
    JsonValue* open_ = nullptr;  // the innermost object or list that is being read
    int depth_ = 0;
    std::string key_;
    size_t keyBegin_ = 0;
};

bool IsCharacterStart(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

}  // namespace

const JsonValue* JsonValue::Find(std::string_view name) const {
    const auto found = std::find_if(children.rbegin(), children.rend(),
                                    [name](const JsonValue& member) { return member.key == name; });
    return !IsObject() || found == children.rend() ? nullptr : &*found;
}

json::json_pointer JsonValue::Pointer() const {
    return parent == nullptr ? json::json_pointer() : parent->Pointer() / key;
}

Position JsonValue::Place() const {
    return layer->PositionOf(begin);
}

std::string JsonValue::Excerpt() const {
    if (IsObject() || IsArray()) {
        return IsObject() ? "an object" : "a list";
    }
    constexpr size_t kLongest = 60;
    if (end - begin <= kLongest) {
        return layer->text.substr(begin, end - begin);
    }
    size_t length = kLongest;
    while (!IsCharacterStart(layer->text[begin + length])) {
        --length;
    }
    return layer->text.substr(begin, length) + "...";
}

Layer::Layer(const std::string& file, size_t order) : path(file), number(order) {
    root.layer = this;
    if (!JsonUtil::ReadFileToString(path, text)) {
        const Linux::Failure reason =
            access(path.c_str(), R_OK) == 0 ? Linux::Failure("it cannot be opened") : Linux::LastError();
        fault = {0, "cannot be read: " + reason.Text(), "a quota file"};
        return;
    }
    // A byte order mark is not a character of the text.
    if (text.starts_with("\xEF\xBB\xBF")) {
        text.erase(0, 3);
    }
    TreeBuilder{*this};
}

Position Layer::PositionOf(size_t offset) const {
    const std::string_view passed = std::string_view(text).substr(0, offset);
    const std::string_view line = passed.substr(passed.rfind('\n') + 1);
    return {1 + static_cast<size_t>(std::ranges::count(passed, '\n')),
            1 + static_cast<size_t>(std::ranges::count_if(line, IsCharacterStart))};
}

std::vector<std::string> QuotaFilesOf(const std::vector<std::string>& paths) {
    std::vector<std::string> files;
    if (paths.empty()) {
        ResPolicyManager().GetQuotaConfigFilesList(files);
    }
    for (const std::string& path : paths) {
        std::error_code ignored;
        const std::string directory = path.ends_with('/') ? path.substr(0, path.size() - 1) : path;
        files.push_back(
            std::filesystem::is_directory(path, ignored) ? directory + ResPolicyManager::kConfigFile : path);
    }
    return files;
}

Layers ReadLayers(const std::vector<std::string>& files) {
    Layers layers;
    for (const std::string& file : files) {
        layers.emplace_back(file, layers.size());
    }
    return layers;
}

}  // namespace KITE::Rqctl
