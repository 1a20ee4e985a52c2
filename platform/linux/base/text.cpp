#include "base/text.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace KITE::Linux {

std::optional<int64_t> ParseDecimal(std::string_view text) {
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    return isWhole ? std::optional(number) : std::nullopt;
}

std::string Printable(std::string_view text) {
    constexpr size_t kLimit = 256;
    std::string printable(text.substr(0, kLimit));
    std::ranges::replace_if(
        printable, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
    return printable;
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    while (!text.empty()) {
        const size_t end = text.find(separator);
        pieces.push_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return pieces;
}

}  // namespace KITE::Linux
