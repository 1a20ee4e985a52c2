#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "visibility.h"

namespace KITE {

// One item of an event; texts are UTF-8.
struct EventField {
    std::string_view key;
    std::variant<int32_t, std::string> value;
};

// The system event recorder.
class KITE_API QuillRec {
  public:
    enum class EventType : int32_t { kFault = 1 };

    QuillRec() = delete;

    // Records one event; 0 on success, else an error number: the event is lost. Never waits. Any thread.
    static int32_t Write(std::string_view domain, std::string_view name, EventType type,
                         const std::vector<EventField>& fields);
};

}  // namespace KITE
