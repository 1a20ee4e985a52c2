#include "treatments/announcement.h"

#include <vector>

#include "base/event_names.h"
#include "base/text.h"
#include "runtime/event_file.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE::Linux {

namespace {

// "done by SIGCONT: its time is over", or "failed: Operation not permitted, tried by SIGSTOP"
std::string TextOf(const TreatmentResult& result) {
    const std::string note = result.note.empty() ? "" : ": " + result.note;
    if (!result.error) {
        return "done" + (result.means.empty() ? "" : " by " + result.means) + note;
    }
    return "failed: " + result.error.message() + note +
           (result.means.empty() ? "" : ", tried by " + result.means);
}

}  // namespace

std::error_code Announce(const Announcement& announcement) {
    const auto& [event, pid, processName, result, by] = announcement;
    const std::string text = std::string(GetSettings().isDryRun ? "dry run: " : "") + std::string(event) +
                             " of pid " + std::to_string(pid) + " (" + Printable(processName) + ") " +
                             TextOf(result);
    if (result.error) {
        PLATFORM_LOGE("%{public}s", text.c_str());
    } else {
        PLATFORM_LOGI("%{public}s", text.c_str());
    }
    std::vector<EventItem> items{{"PID", pid},
                                 {"PROCESS_NAME", processName},
                                 {"FORM", result.means},
                                 {"REASON", result.note},
                                 {"RESULT", result.error.value()}};
    if (by) {
        items.push_back({"BY_UID", *by});
    }
    static_cast<void>(RecordEvent(event, items));  // it logs a failure itself
    return result.error;
}

std::error_code AnnounceRelease(const TreatmentRecord& record, const char* why) {
    return Announce({EventName::kRelease, record.pid, record.processName, {.error = {}, .note = why}});
}

}  // namespace KITE::Linux
