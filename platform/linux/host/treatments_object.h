#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include "ipc/caller_uids.h"
#include "ipc/handles.h"

namespace KITE::Linux {

class Treatments;

// The object /kite/treatments of this process's connection, by which an administrator sees what is treated
// now and lets a process go. Interface kite.Treatments:
//
//   List() -> (b dry_run, a(isxxxsixx) treated)
//       one struct for each process: pid, name, suppressed since, frozen since, frozen until (milliseconds
//       since the epoch; 0: not), and of the last report before the treatment the resource type, the rule's
//       id, the measured resource and the quota's duration. Bytes of names that are not printable ASCII are
//       question marks.
//   Release(i pid)
//       See Treatments::Release. Errors: kNotTreatedError, kNoSuchProcessError, kNotReleasedError.
//
// The caller's token needs kManagePermission; for List, kReadPermission will do. Otherwise, and for a caller
// that the bus does not vouch for, AccessDenied. A task does the work, since treatments may take time.
class TreatmentsObject {
  public:
    static constexpr const char* kManagePermission = "kite.permission.MANAGE_TREATMENTS";
    static constexpr const char* kReadPermission = "kite.permission.DUMP";
    static constexpr const char* kNotTreatedError = "kite.Treatments.Error.NotTreated";
    static constexpr const char* kNoSuchProcessError = "kite.Treatments.Error.NoSuchProcess";
    static constexpr const char* kNotReleasedError = "kite.Treatments.Error.NotReleased";

    // Must outlive the bus's serving thread and the tasks.
    TreatmentsObject(ServingThread& thread, Treatments& treatments);

    // The object is there until Withdraw; what waits then gets an error. With a bus. Host's thread.
    void Serve();
    void Withdraw();

  private:
    // Writes the answer to a call. On the serving thread.
    using Answer = std::function<std::error_code(sd_bus_message* call)>;
    // Finds the answer for that user. On a task's thread.
    using Work = std::function<Answer(uid_t caller)>;

    static constexpr size_t kMostCalls = 16;

    static int OnList(sd_bus_message* call, void* self, sd_bus_error* error);
    static int OnRelease(sd_bus_message* call, void* self, sd_bus_error* error);

    int Accept(sd_bus_message* call, sd_bus_error* error, bool isReading, Work work);
    void Reply(uint64_t id, const Answer& answer);

    ServingThread& thread_;
    Treatments& treatments_;
    // The serving thread's.
    CallerUids uids_;
    SlotHandle slot_;
    std::map<uint64_t, MessageHandle> calls_;
    uint64_t lastCall_ = 0;
};

}  // namespace KITE::Linux
