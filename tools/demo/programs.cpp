#include "demo/programs.h"

namespace KITE::Demo {

using Linux::Resource;

// Durations and quotas are those of etc/quotas. All that run unpinned use less than one core together, so
// that on two cores the suppressed one still gets more than its quota and comes to the next stage. The uids
// belong to no other process on the machine; the two programs of which the device state tells have uids of
// their own, since it knows an application by its uid.
const std::vector<Program>& Programs() {
    constexpr uid_t kUid = 61500;
    constexpr uid_t kCallUid = 61501;
    constexpr uid_t kUploadUid = 61502;
    using enum Fate;
    using enum Resource;
    static const std::vector<Program> programs{
        {"yes", "keeps a core busy; may use 10 %", kStages, kCpuExt, kUid, ""},
        {"log_flooder", "writes without end; may write 16 MiB in 2 s", kKilled, kIo, kUid, "write"},
        {"memory_hog", "takes up to 200 MiB; may have 64 MiB", kKilled, kMemory, kUid, "memory 200"},
        {"busy_indexer", "uses 25 % of a core; is frozen above 10 %", kFrozen, kCpu, kUid, "cpu 25"},
        {"chatty_sensor", "uses 20 %; a warning above 10 %, no more", kUntouched, kCpu, kUid, "cpu 20",
         "its rule only warns", 11},
        {"video_call", "uses 25 %, may use 10 %, but is in the foreground", kUntouched, kCpuExt, kCallUid,
         "cpu 25", "the device state says that it is in the foreground", 11},
        {"backup_upload", "writes like the flooder, but moves the user's data", kUntouched, kIo, kUploadUid,
         "write", "the device state says that it transfers data", 9},
        {"tidy_daemon", "uses 3 %; may use 10 %", kUntouched, kCpuExt, kUid, "cpu 3"},
    };
    return programs;
}

}  // namespace KITE::Demo
