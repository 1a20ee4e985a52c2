#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "rqctl/exit_status.h"

namespace KITE::Rqctl {

enum class Tone { kPlain, kQuiet, kGood, kNotice, kWarning, kBad };

// The text in the tone's colour where standard output is a terminal that shows colours and NO_COLOR is not
// set, else as it is.
std::string Paint(Tone tone, const std::string& text);

// A text of unknown origin (a process name) for people: control characters, marks that turn the direction of
// writing, and what is not UTF-8 become \xNN.
std::string Printable(std::string_view text);

// Writes a line to standard output, which is out when the call returns.
void Say(const std::string& line);

// Likewise, a document, in ASCII; text that is not UTF-8 gets U+FFFD.
void SayJson(const nlohmann::ordered_json& document);

// Writes "rqctl: REASON" to standard error and returns the status.
ExitStatus Fail(ExitStatus status, const std::string& reason);

}  // namespace KITE::Rqctl
