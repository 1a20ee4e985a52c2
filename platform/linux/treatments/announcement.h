#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "treatments/treatment_context.h"

namespace KITE::Linux {

// What was done to a process, or was not: for the log and the events.
struct Announcement {
    std::string_view event;  // see base/event_names.h
    pid_t pid;
    std::string processName;
    TreatmentResult result;
    std::optional<uid_t> by = std::nullopt;  // who asked for a release
};

// Writes one log line and one event; returns the result's error. Any thread.
std::error_code Announce(const Announcement& announcement);
// That the record's process is not treated any more.
std::error_code AnnounceRelease(const TreatmentRecord& record, const char* why);

}  // namespace KITE::Linux
