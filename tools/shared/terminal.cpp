#include "shared/terminal.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace KITE::Tools {

namespace {

// In the order of the tones.
constexpr std::array<std::string_view, 6> kCodes{"",         "\033[2m",  "\033[32m",
                                                 "\033[36m", "\033[33m", "\033[31m"};

bool WantsColour() {
    const char* refusal = secure_getenv("NO_COLOR");
    const char* terminal = secure_getenv("TERM");
    const bool isDumb = terminal != nullptr && std::string_view(terminal) == "dumb";
    return isatty(STDOUT_FILENO) != 0 && (refusal == nullptr || *refusal == '\0') && !isDumb;
}

// Length of the UTF-8 character that the text begins with, 0 when it does not begin with one.
size_t CharacterLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    const size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    const bool isFirst = first < 0x80 || (first >= 0xC2 && first < 0xF5);
    const bool isWhole = length <= text.size() && std::ranges::all_of(text.substr(1, length - 1), [](char c) {
                             return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
                         });
    return isFirst && isWhole ? length : 0;
}

// C0, DEL and C1, which a terminal may take for commands; and marks that turn the direction of writing or end
// a line, by which a text may look like another.
bool IsControl(std::string_view character) {
    static constexpr std::array<std::string_view, 14> kTurningMarks{
        "\u061C", "\u200E", "\u200F", "\u2028", "\u2029", "\u202A", "\u202B",
        "\u202C", "\u202D", "\u202E", "\u2066", "\u2067", "\u2068", "\u2069"};
    const auto first = static_cast<unsigned char>(character[0]);
    return first < 0x20 || first == 0x7F ||
           (first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0) ||
           std::ranges::find(kTurningMarks, character) != kTurningMarks.end();
}

}  // namespace

std::string Paint(Tone tone, std::string_view text) {
    static const bool isColoured = WantsColour();
    return isColoured && tone != Tone::kPlain
               ? fmt::format("{}{}\033[0m", kCodes.at(static_cast<size_t>(tone)), text)
               : std::string(text);
}

std::string Escaped(std::string_view text) {
    std::string escaped;
    while (!text.empty()) {
        const size_t length = CharacterLength(text);
        const bool isSafe = length != 0 && !IsControl(text.substr(0, length));
        escaped += isSafe ? std::string(text.substr(0, length))
                          : fmt::format("\\x{:02x}", static_cast<unsigned char>(text[0]));
        text.remove_prefix(isSafe ? length : 1);
    }
    return escaped;
}

void Say(std::string_view line) {
    fmt::print("{}\n", line);
    std::fflush(stdout);
}

}  // namespace KITE::Tools
