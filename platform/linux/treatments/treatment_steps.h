#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "treatments/control_groups.h"
#include "treatments/treatment_record.h"

namespace KITE::Linux {

// How long a freeze waits for the kernel to say that all is frozen; one thread that cannot be interrupted
// delays that.
inline constexpr std::chrono::milliseconds kFreezerLimit{500};

// What a step came to.
struct Step {
    int error = 0;     // 0 or an error number
    std::string form;  // the means used
    int untidy = 0;  // why the record or a group made for the process is still as it was, though all is done
    bool isFinal = false;  // no other means would do better

    int Unfinished() const { return error != 0 ? error : untidy; }
};

// Does and undoes treatments, and keeps the record in step: it is on disk before anything is done, and goes
// when nothing is left to undo. A record shows what is in force; a step that fails leaves in it what still
// has to be undone. `pidfd` names the record's process; -1 when it has ended, where that makes sense.
//
// Every touch of a process goes through here. A dry run goes through the same steps and touches nothing: no
// signal, no policy, no group and no record on disk.
//
// Callers serialize the calls, but for Kill. A step waits for the file system, and a freeze up to
// kFreezerLimit.
class TreatmentSteps {
  public:
    TreatmentSteps(Cgroups cgroups, std::string stateDirectory, bool isDryRun = false);

    TreatmentRecord NewRecord(pid_t pid, int64_t startTime, const std::string& name) const;

    // The process runs only when nothing else wants the processor: by cpu.idle of its group, or else by
    // SCHED_IDLE on every thread, which is weaker: it does not reach across login sessions where the kernel
    // groups tasks by session. Children born meanwhile get the main thread's policy at the end, as far as
    // they can be told (see IdleFamily); one that is suppressed itself meanwhile is let off early by that.
    Step Suppress(TreatmentRecord& record, int pidfd) const;
    Step EndSuppression(TreatmentRecord& record, int pidfd) const;

    // The process does not run at all: by the freezer of its group, or else by SIGSTOP. Children that were
    // born while it was treated share its group and are frozen with it.
    Step Freeze(TreatmentRecord& record, int pidfd) const;
    Step Thaw(TreatmentRecord& record, int pidfd) const;

    // Sends SIGKILL. Any thread.
    Step Kill(int pidfd) const;

    // Undoes all; 0, or an error number when something is left in the record.
    int UndoAll(TreatmentRecord& record, int pidfd) const;
    // Removes groups that nothing uses any more and brings the file up to date; 0 or the first error.
    int Tidy(TreatmentRecord& record) const;

    bool IsDryRun() const { return isDryRun_; }
    const Cgroups& Groups() const { return cgroups_; }
    const RecordStore& Records() const { return records_; }

  private:
    // Where a value is to be changed for a process.
    struct Spot {
        Group group;
        bool isNew = false;  // to be made below the process's present group
        int error = 0;       // why there is none
    };

    Spot FindSpot(const TreatmentRecord& record, Hierarchy hierarchy) const;
    // Says so when the record cannot be written.
    int Save(const TreatmentRecord& record) const;
    // Saves what is going to be done; the record is that from then on.
    int Plan(TreatmentRecord& record, TreatmentRecord planned) const;
    // Switches the file's value on and has the process there.
    int Enter(const Spot& spot, const TreatmentRecord& record, int pidfd, std::string_view file) const;
    int EnableCpuFor(const Group& group) const;
    Step SuppressInAnyForm(TreatmentRecord& record, int pidfd) const;
    Step SuppressInGroup(TreatmentRecord& record, int pidfd, Hierarchy hierarchy) const;
    Step SuppressThreads(TreatmentRecord& record, int pidfd) const;
    Step FreezeInAnyForm(TreatmentRecord& record, int pidfd) const;
    Step FreezeInGroup(TreatmentRecord& record, int pidfd) const;
    Step StopBySignal(TreatmentRecord& record, int pidfd) const;
    int RestoreValue(const Group& group, const char* file, const std::string& value) const;
    int RestoreIdle(const ChangedGroup& changed) const;
    // The file of a record in which a step that failed left nothing.
    void TidyIfEmpty(TreatmentRecord& record, const Step& step) const;
    int RemoveUnusedGroups(TreatmentRecord& record) const;

    const Cgroups cgroups_;
    const RecordStore records_;
    const bool isDryRun_;
    const std::string bootId_;
    const int64_t hostStartTime_;
    // Idle by a suppression of their own, and not for being born to an idle process.
    mutable ProcessKeys madeIdle_;
};

}  // namespace KITE::Linux
