#pragma once

#include <sys/types.h>

#include <asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/result.h"
#include "proc/pidfd.h"
#include "proc/program.h"
#include "treatments/end_watcher.h"

namespace KITE::Linux {

// What a report says of the quota that was broken.
struct BrokenQuota {
    std::string resourceType;
    int32_t ruleId = 0;
    int64_t resource = 0;  // measured
    int64_t duration = 0;  // of the quota
};

// A process as one report names it.
struct ReportedProcess {
    int pidfd;
    // Of the pidfd, whose process it watches; one for all reports of a process.
    std::shared_ptr<asio::posix::stream_descriptor> owner;
    ProcessKey key;
    std::string name;
    ExecutableIdentity executable;
    BrokenQuota brokenQuota;

    // Fails with ESRCH, and in words what differs, unless the pid still means the reported process, running
    // the reported program under the reported name, which must be the requested one too.
    Result<void> Verify(const std::string& requestedName) const;
};

using ReportedProcessPtr = std::shared_ptr<const ReportedProcess>;

// The last report of each process; above the capacity the oldest one without another holder goes. Any thread.
class ReportedProcesses {
  public:
    // The watcher must outlive it and every process that it returned.
    ReportedProcesses(size_t capacity, EndWatcher& watcher) : capacity_(capacity), watcher_(watcher) {}

    // As many as the process may open descriptors for, and leave as many for other uses.
    static size_t UsualCapacity();

    // Keeps hold of a process that a report has named, so that what is decided later reaches this process or
    // none, and has its end watched. It must exist and have started at that time (clock ticks since boot),
    // and is known under that name from then on. Waits for nothing but /proc.
    Result<ReportedProcessPtr> Remember(pid_t pid, int64_t startTime, const std::string& name,
                                        BrokenQuota brokenQuota = {});
    // Null when there is none.
    ReportedProcessPtr Find(pid_t pid) const;
    // Forgets the process of that pid if it has ended.
    void DropExited(pid_t pid);

  private:
    struct Entry {
        ReportedProcessPtr process;
        uint64_t report;  // its number
    };

    void MakeRoom();  // with the mutex held

    const size_t capacity_;
    EndWatcher& watcher_;
    mutable std::mutex mutex_;  // guards what follows
    std::unordered_map<pid_t, Entry> entries_;
    uint64_t lastReport_ = 0;
};

}  // namespace KITE::Linux
