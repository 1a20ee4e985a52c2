#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Texts from outside. Any thread.
namespace KITE::Linux {

// A number of decimal digits, with a minus before it at most. Absent for anything else and when out of range.
std::optional<int64_t> ParseDecimal(std::string_view text);

// Of a text that others chose, at most 256 bytes, fit for a log line: what is not printable ASCII is a '?'.
std::string Printable(std::string_view text);

// The pieces between the separators; a separator at the end is followed by no piece.
std::vector<std::string_view> Split(std::string_view text, char separator);

}  // namespace KITE::Linux
