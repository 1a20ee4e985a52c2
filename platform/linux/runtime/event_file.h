#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "visibility.h"

namespace KITE::Linux {

// The type of an event that tells what the platform saw or did, as opposed to a fault of what it watches.
inline constexpr int32_t kBehaviourEvent = 4;

// One item of an event.
struct EventItem {
    std::string_view key;
    std::variant<int64_t, std::string> value;
};

// An event with the moment at which it was made. Texts that are views must be constants.
struct KITE_API Event {
    Event(std::string_view itsDomain, std::string_view itsName, int32_t itsType,
          std::vector<EventItem> itsItems);

    int64_t time;  // milliseconds since the epoch
    std::string_view domain;
    std::string_view name;
    int32_t type;
    std::vector<EventItem> items;
};

// Appends one event to <state>/events.jsonl, as one line of JSON: "time", "domain", "name", "type", the items
// in their order, and "DRY_RUN": true where the settings say that nothing is touched; an item cannot replace
// one of the four. Text that is not UTF-8 gets U+FFFD for what is wrong. A file that would outgrow 8 MiB is
// first renamed to events.jsonl.1, in place of the one before it. The event goes to the log too, at info
// level.
//
// Returns 0, or the error number, having logged why. Waits for nothing but the file system. Any thread; only
// one process may write in a state directory.
KITE_API int32_t RecordEvent(std::string_view domain, std::string_view name, int32_t type,
                             std::vector<EventItem> items);

// For a thread that must not wait for the file system: the events stand in the file before every later one,
// once WriteQueuedEvents has run or anybody has recorded another. They do not go to the log. When very many
// wait for a file system that does not write, this waits too, and loses none. Any thread.
KITE_API void QueueEvents(std::vector<Event> events);
KITE_API void WriteQueuedEvents();

}  // namespace KITE::Linux
