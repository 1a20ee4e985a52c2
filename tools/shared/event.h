#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/json_node.h"

namespace KITE::Tools {

// A line of the events file (docs/linux.md). A key that the line does not have is empty or 0.
struct Event {
    int64_t time = 0;  // ms since the epoch, kLatestMoment at most
    std::string domain;
    std::string name;
    int64_t pid = 0;
    std::string processName;
    bool isDryRun = false;

    // Of a report.
    int64_t uid = 0;
    std::string resourceType;
    int64_t ruleId = 0;
    int64_t resource = 0;  // what was measured
    int64_t duration = 0;
    std::string action;

    // Of a treatment.
    std::string form;  // the means
    std::string reason;
    int64_t result = 0;  // 0 or an error number
    std::optional<int64_t> byUid;

    // Of the fault event of a kill.
    std::string message;

    // Whether it is the platform's event of that name (base/event_names.h).
    bool Is(std::string_view eventName) const;
};

// For ReadJson. A key that is read and has another type is a fault, as is a nested value.
Event ReadEvent(const Linux::JsonNode& line);

}  // namespace KITE::Tools
