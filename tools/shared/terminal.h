#pragma once

#include <string>
#include <string_view>

// Lines for people on standard output.
namespace KITE::Tools {

enum class Tone { kPlain, kQuiet, kGood, kNotice, kWarning, kBad };

// In the tone's colour where standard output is a terminal that shows colours and NO_COLOR is not set.
std::string Paint(Tone tone, std::string_view text);

// A text of unknown origin (a process name), safe to show: control characters, marks that turn the direction
// of writing, and bytes that are not UTF-8 become \xNN.
std::string Escaped(std::string_view text);

// Writes a line to standard output, and has written it when the call returns.
void Say(std::string_view line);

}  // namespace KITE::Tools
