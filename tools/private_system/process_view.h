#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "private_system/waiting.h"

namespace KITE::Tools {

// A process as /proc shows it. The pid must not have been given to another process meanwhile. Of a process
// that is gone, numbers are 0 and lists empty. Any thread.
class ProcessView {
  public:
    explicit ProcessView(pid_t pid) : pid_(pid) {}

    pid_t Pid() const { return pid_; }
    // The letter of /proc/PID/stat.
    char State() const;
    bool AwaitState(char state) const;
    // In clock ticks since boot.
    int64_t StartTime() const;
    std::chrono::nanoseconds CpuTime() const;
    // The CPU time of the next stretch of time, in percent of a core.
    double CpuPercent(milliseconds stretch) const;
    // Whether it gets no CPU time at all; whether it gets some before long.
    bool StandsStill() const;
    bool Runs() const;
    // What a suppression changes: the policy and niceness of each thread, and the groups of the process.
    std::string Standing() const;
    // Of its first thread.
    std::vector<pid_t> Children() const;
    size_t DescriptorCount() const;
    size_t ThreadCount() const;
    size_t ResidentKiB() const;
    // Sent to storage.
    int64_t WrittenBytes() const;

  protected:
    void SetPid(pid_t pid) { pid_ = pid; }

  private:
    pid_t pid_;
};

}  // namespace KITE::Tools
