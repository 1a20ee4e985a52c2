#include "demo/programs.h"

namespace KITE::Demo {

namespace {

// Of nobody else on the machine. The two programs that the device state speaks of have uids of their own,
// since an application is known by its uid.
constexpr uid_t kNativeUid = 61500;
constexpr uid_t kCallUid = 61501;
constexpr uid_t kUploadUid = 61502;

}  // namespace

// Durations and quotas are those of etc/quotas. All that run unpinned use less than one core together, so
// that on two cores the suppressed one still gets more than its quota and comes to the next stage.
const std::vector<Program>& Programs() {
    static const std::vector<Program> programs{
        {"yes", "keeps a core busy; may use 10 %", Fate::kStages, Measure::kCpu, 0, kNativeUid, {}},
        {"log_flooder",
         "writes without end; may write 16 MiB in 2 s",
         Fate::kKilled,
         Measure::kWrites,
         0,
         kNativeUid,
         {"write"}},
        {"memory_hog",
         "takes up to 200 MiB; may have 64 MiB",
         Fate::kKilled,
         Measure::kMemory,
         0,
         kNativeUid,
         {"memory", "200"}},
        {"busy_indexer",
         "uses 25 % of a core; is to be frozen above 10 %",
         Fate::kFrozen,
         Measure::kCpu,
         0,
         kNativeUid,
         {"cpu", "25"}},
        {"chatty_sensor",
         "uses 20 %; a warning above 10 %, no more",
         Fate::kUntouched,
         Measure::kCpu,
         11,
         kNativeUid,
         {"cpu", "20"}},
        {"video_call",
         "uses 25 %, may use 10 %, but is in the foreground",
         Fate::kUntouched,
         Measure::kCpu,
         11,
         kCallUid,
         {"cpu", "25"}},
        {"backup_upload",
         "writes like the flooder, but moves the user's data",
         Fate::kUntouched,
         Measure::kWrites,
         9,
         kUploadUid,
         {"write"}},
        {"tidy_daemon",
         "uses 3 %; may use 10 %",
         Fate::kUntouched,
         Measure::kCpu,
         0,
         kNativeUid,
         {"cpu", "3"}},
    };
    return programs;
}

std::string FateText(Fate fate) {
    switch (fate) {
        case Fate::kStages:
            return "suppressed, frozen, killed";
        case Fate::kKilled:
            return "killed";
        case Fate::kFrozen:
            return "frozen, thawed at the stop";
        case Fate::kUntouched:
            break;
    }
    return "untouched";
}

std::string MeasureText(Measure measure, int64_t value) {
    const std::string number = std::to_string(value);
    switch (measure) {
        case Measure::kCpu:
            return number + " % of a core";
        case Measure::kMemory:
            return number + " MiB";
        case Measure::kWrites:
            break;
    }
    return number + " MiB/s";
}

}  // namespace KITE::Demo
