#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <variant>
#include <vector>

#include "visibility.h"

// The event file, <state>/events.jsonl: one line of JSON for each event, with "time" (milliseconds since the
// epoch), "domain", "name", "type", the event's items in their order, and "DRY_RUN": true where the settings
// say that nothing is touched. An item cannot replace one of the first four. In a text, what is not UTF-8
// becomes U+FFFD. A file that would outgrow 8 MiB is first renamed to events.jsonl.1, in place of the one
// before it. Only one process may write in a state directory.
//
// The operations below record what the platform saw or did; their names are in base/event_names.h.
namespace KITE::Linux {

// One item of an event.
struct EventItem {
    std::string_view key;
    std::variant<int64_t, std::string> value;
};

// Appends an event to the file, behind those that are queued, and tells it to the log at info level. Waits
// for nothing but the file system. A failure has been logged. Any thread.
KITE_API std::error_code RecordEvent(std::string_view name, const std::vector<EventItem>& items);

// For a thread that must not wait for the file system: the event stands in the file before every later one,
// once WriteQueuedEvents has run or another event has been recorded. It does not go to the log. When the file
// system is so slow that some 4 MiB are queued, this waits too, and loses none. Any thread.
KITE_API void QueueEvent(std::string_view name, const std::vector<EventItem>& items);
KITE_API void WriteQueuedEvents();

}  // namespace KITE::Linux
