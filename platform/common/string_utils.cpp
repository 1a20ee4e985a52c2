#include "string_utils.h"

#include <cstdint>
#include <string_view>

namespace KITE {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool IsLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

// The first byte holds the length of the sequence and the highest bits, each further byte six bits.
void AppendUtf8(std::string& text, char32_t code) {
    constexpr char32_t kFirstByte[] = {0, 0xC0, 0xE0, 0xF0};
    int more = code < 0x80 ? 0 : code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    text.push_back(static_cast<char>(kFirstByte[more] | (code >> (6 * more))));
    for (; more > 0; --more) {
        text.push_back(static_cast<char>(0x80 | ((code >> (6 * (more - 1))) & 0x3F)));
    }
}

void AppendUtf16(std::u16string& text, char32_t code) {
    if (code < 0x10000) {
        text.push_back(static_cast<char16_t>(code));
        return;
    }
    text.push_back(static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10)));
    text.push_back(static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF)));
}

// Takes one code point off the front; a byte that begins no valid sequence is taken alone.
char32_t TakeUtf8(std::string_view& text) {
    const auto lead = static_cast<uint8_t>(text.front());
    const size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    char32_t code = length == 1 ? lead : length == 0 ? 0 : lead & (0xFFU >> (length + 1));
    bool valid = length != 0 && lead < 0xF8 && length <= text.size();
    for (size_t i = 1; valid && i < length; ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        valid = (byte & 0xC0) == 0x80;
        code = (code << 6) | (byte & 0x3F);
    }
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    valid = valid && code >= kSmallest[length] && code < 0x110000 && !IsHighSurrogate(code) &&
            !IsLowSurrogate(code);
    text.remove_prefix(valid ? length : 1);
    return valid ? code : kReplacement;
}

}  // namespace

std::string Str16ToStr8(const std::u16string& text) {
    std::string converted;
    converted.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t code = text[i];
        if (IsHighSurrogate(code) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
            code = 0x10000 + ((code - 0xD800) << 10) + (char32_t{text[++i]} - 0xDC00);
        } else if (IsHighSurrogate(code) || IsLowSurrogate(code)) {
            code = kReplacement;
        }
        AppendUtf8(converted, code);
    }
    return converted;
}

std::u16string Str8ToStr16(const std::string& text) {
    std::u16string converted;
    converted.reserve(text.size());
    for (std::string_view rest = text; !rest.empty();) {
        AppendUtf16(converted, TakeUtf8(rest));
    }
    return converted;
}

}  // namespace KITE
