#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "system_event.h"
#include "visibility.h"

namespace KITE::Linux {

// The type of an event that tells what the platform did, as opposed to a fault of what it watches.
inline constexpr int32_t kBehaviourEvent = 4;

// Appends one event to <state>/events.jsonl, as one line of JSON: "time" (milliseconds since the epoch),
// "domain", "name", "type", and then the given fields in their order; a field cannot replace one of the four.
// Text that is not UTF-8 gets U+FFFD for what is wrong. A file that would outgrow 8 MiB is first renamed to
// events.jsonl.1, in place of the one before it. The event goes to the log too, at info level.
//
// Returns 0, or the error number, having logged why. Waits for nothing but the file system. Any thread; only
// one process may write in a state directory.
KITE_API int32_t RecordEvent(std::string_view domain, std::string_view name, int32_t type,
                             const std::vector<EventField>& fields);

}  // namespace KITE::Linux
