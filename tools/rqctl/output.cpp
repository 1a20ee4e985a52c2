#include "rqctl/output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace KITE::Rqctl {

namespace {

const char* CodeOf(Tone tone) {
    static constexpr std::array<const char*, 6> kCodes{"",         "\033[2m",  "\033[32m",
                                                       "\033[36m", "\033[33m", "\033[31m"};
    return kCodes.at(static_cast<size_t>(tone));
}

bool WantsColour() {
    const char* refusal = secure_getenv("NO_COLOR");
    const char* terminal = secure_getenv("TERM");
    const bool isDumb = terminal != nullptr && std::string_view(terminal) == "dumb";
    return isatty(STDOUT_FILENO) != 0 && (refusal == nullptr || *refusal == '\0') && !isDumb;
}

// Length of the UTF-8 character that the text begins with, 0 when it does not begin with one.
size_t CharacterLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    const size_t length = first < 0x80   ? 1
                          : first < 0xC2 ? 0
                          : first < 0xE0 ? 2
                          : first < 0xF0 ? 3
                          : first < 0xF5 ? 4
                                         : 0;
    if (length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
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

std::string Paint(Tone tone, const std::string& text) {
    static const bool isColoured = WantsColour();
    return isColoured && tone != Tone::kPlain ? CodeOf(tone) + text + "\033[0m" : text;
}

std::string Printable(std::string_view text) {
    std::string printable;
    while (!text.empty()) {
        const size_t length = CharacterLength(text);
        if (length != 0 && !IsControl(text.substr(0, length))) {
            printable += text.substr(0, length);
            text.remove_prefix(length);
            continue;
        }
        static constexpr std::string_view kDigits = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(text[0]);
        printable.append({'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xF]});
        text.remove_prefix(1);
    }
    return printable;
}

void Say(const std::string& line) {
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
}

void SayJson(const nlohmann::ordered_json& document) {
    Say(document.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace));
}

ExitStatus Fail(ExitStatus status, const std::string& reason) {
    std::fprintf(stderr, "rqctl: %s\n", reason.c_str());
    return status;
}

}  // namespace KITE::Rqctl
