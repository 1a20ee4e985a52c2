#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The texts of /proc. A process chooses parts of them, so nothing is believed: whatever is not as expected, a
// number that is cut off at the end included, is absent.
namespace KITE::Linux::Sampling {

// The last path component of the first argument, whole. Empty for kernel threads and zombies, and when a read
// of kProcBufferSize bytes may have cut the argument off.
std::string_view ProcessNameOf(std::string_view cmdline);

// The name that the quota service sees when it verifies a process that was reported to it: what follows the
// last slash of all arguments, cut at 15 bytes and at the first NUL.
class SeenName {
  public:
    // Takes the next piece of the command line.
    void Add(std::string_view piece);
    std::string Text() const { return tail_.substr(0, tail_.find('\0')); }

  private:
    std::string tail_;
};

// Whether the service would accept a report under that name.
bool IsAcceptedAs(std::string_view seenName, std::string_view reportedName);

// A text that others chose, fit for a log line: unprintable bytes become '?'.
std::string Printable(std::string_view text);

// When the process started, in clock ticks since boot: field 22 of "stat". The command name before it may
// hold blanks and parentheses.
std::optional<int64_t> StartTimeOf(std::string_view stat);
// Resident pages: field 2 of "statm".
std::optional<int64_t> ResidentPagesOf(std::string_view statm);
// The pid that was given away last: field 5 of "loadavg".
std::optional<int64_t> NewestPidOf(std::string_view loadavg);
// The first number of the line that begins with the key, colon included ("write_bytes:", "Pss:", "Uid:").
std::optional<int64_t> NumberOfLine(std::string_view text, std::string_view key);

}  // namespace KITE::Linux::Sampling
