#include "proc/proc_texts.h"

#include <algorithm>
#include <charconv>

#include "proc/process_files.h"

namespace KITE::Linux::Sampling {

namespace {

constexpr size_t kSeenLength = 15;

// A number at the front, which something must follow: at the very end it may have been cut off.
std::optional<int64_t> LeadingNumber(std::string_view text) {
    int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const bool isWhole =
        error == std::errc() && rest != end && (*rest == ' ' || *rest == '\n' || *rest == '\t');
    return isWhole && number >= 0 ? std::optional(number) : std::nullopt;
}

// Field number `index`, the first being 0, of a text of fields with one blank between them.
std::optional<int64_t> NumberOfField(std::string_view text, int index) {
    for (; index > 0; --index) {
        const size_t blank = text.find(' ');
        if (blank == std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(blank + 1);
    }
    return LeadingNumber(text);
}

}  // namespace

std::string_view ProcessNameOf(std::string_view cmdline) {
    const std::string_view program = cmdline.substr(0, cmdline.find('\0'));
    if (program.size() >= kProcBufferSize) {
        return {};
    }
    return program.substr(program.rfind('/') + 1);
}

void SeenName::Add(std::string_view piece) {
    const size_t slash = piece.rfind('/');
    if (slash != std::string_view::npos) {
        tail_.clear();
        piece.remove_prefix(slash + 1);
    }
    tail_.append(piece.substr(0, kSeenLength - tail_.size()));
}

bool IsAcceptedAs(std::string_view seenName, std::string_view reportedName) {
    return !seenName.empty() && reportedName.find(seenName) != std::string_view::npos;
}

std::string Printable(std::string_view text) {
    std::string printable(text);
    std::ranges::replace_if(
        printable, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
    return printable;
}

std::optional<int64_t> StartTimeOf(std::string_view stat) {
    const size_t nameEnd = stat.rfind(") ");
    if (nameEnd == std::string_view::npos) {
        return std::nullopt;
    }
    constexpr int kFieldAfterName = 3;
    return NumberOfField(stat.substr(nameEnd + 2), 22 - kFieldAfterName);
}

std::optional<int64_t> ResidentPagesOf(std::string_view statm) {
    return NumberOfField(statm, 1);
}

std::optional<int64_t> NewestPidOf(std::string_view loadavg) {
    return NumberOfField(loadavg, 4);
}

std::optional<int64_t> NumberOfLine(std::string_view text, std::string_view key) {
    while (!text.starts_with(key)) {
        const size_t lineEnd = text.find('\n');
        if (lineEnd == std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(lineEnd + 1);
    }
    text.remove_prefix(key.size());
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return LeadingNumber(text);
}

}  // namespace KITE::Linux::Sampling
