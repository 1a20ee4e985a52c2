#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/unique_fd.h"
#include "proc/executable.h"

namespace KITE::Linux {

// What a report says of the quota that was broken.
struct BrokenQuota {
    std::string resourceType;
    int32_t ruleId = 0;
    int64_t resource = 0;  // measured
    int64_t duration = 0;  // of the quota
};

// One reported process. Not changed once made.
class ProcessHandle {
  public:
    ProcessHandle(UniqueFd pidfd, pid_t pid, int64_t startTime, std::string name,
                  ExecutableIdentity executable)
        : pidfd_(std::move(pidfd)),
          pid_(pid),
          startTime_(startTime),
          name_(std::move(name)),
          executable_(executable) {}

    // Empty when the pid still means the reported process, running the reported program under the reported
    // name, which must be the requested one too; otherwise what differs.
    std::string Difference(const std::string& requestedName) const;

    int Pidfd() const { return pidfd_.Get(); }
    pid_t Pid() const { return pid_; }
    int64_t StartTime() const { return startTime_; }
    const std::string& Name() const { return name_; }
    bool IsSameAs(const ProcessHandle& other) const;

  private:
    const UniqueFd pidfd_;
    const pid_t pid_;
    const int64_t startTime_;
    const std::string name_;
    const ExecutableIdentity executable_;
};

using ProcessHandlePtr = std::shared_ptr<const ProcessHandle>;

// The reported processes, at most so many: when there are more, the one whose report is oldest and that
// nobody else holds is forgotten. Any thread.
class ReportedProcesses {
  public:
    explicit ReportedProcesses(size_t capacity) : capacity_(capacity) {}

    // As many as the process may open descriptors for, and leave as many to others.
    static size_t UsualCapacity();

    // The process must exist when a report of it arrives, must have started at that time (clock ticks since
    // boot), and is known under that name from then on. A new report of the same process replaces name,
    // executable and broken quota. Null, with an error line, when the process is not there or another by
    // now. Waits for nothing but /proc.
    ProcessHandlePtr Remember(pid_t pid, int64_t startTime, const std::string& name,
                              BrokenQuota brokenQuota = {});
    // Null when there is none.
    ProcessHandlePtr Find(pid_t pid) const;
    // The last reported one; empty when there is none.
    BrokenQuota LastBrokenQuota(pid_t pid) const;
    // Forgets the process of that pid if it has ended.
    void DropExited(pid_t pid);

  private:
    struct Entry {
        ProcessHandlePtr handle;
        uint64_t order;
        BrokenQuota brokenQuota;
    };

    ProcessHandlePtr Keep(ProcessHandlePtr handle, BrokenQuota brokenQuota);
    void MakeRoom();

    const size_t capacity_;
    mutable std::mutex mutex_;  // guards what follows
    std::unordered_map<pid_t, Entry> entries_;
    std::map<uint64_t, pid_t> byAge_;
    uint64_t nextOrder_ = 0;
};

}  // namespace KITE::Linux
