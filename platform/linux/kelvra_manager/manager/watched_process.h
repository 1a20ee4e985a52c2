#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "kelvra_manager/manager/process_meter.h"
#include "kelvra_manager/manager/reporter.h"
#include "kelvra_manager/manager/sample_recorder.h"
#include "kelvra_manager/manager/windows.h"

namespace KITE::Linux::Sampling {

// A process whose name has rules: its identity, its measurement and its windows. One thread.
//
// The kept descriptor of its command line is its identity: it answers only for this process, however often
// the pid is used again. So every sample measures by pid first and reads the command line last: if that still
// gives the name, all that was measured before is of this process and of this program.
class WatchedProcess {
  public:
    static constexpr int kMostDescriptors = 1 + ProcessMeter::kMostDescriptors;

    // Takes the opened "cmdline" from which the name was read. Warns when the quota service would refuse
    // reports of this process. The rules must outlive it.
    WatchedProcess(pid_t pid, int64_t startTime, UniqueFd cmdline, std::string_view name,
                   std::span<const Rule> rules);

    // Measures what the rules need. False when the process has gone or runs a program of another name: then
    // nothing counts. Otherwise the sample also goes to the recorder, if there is one.
    bool Sample(TimePoint at, SampleRecorder* recorder = nullptr);

    // The reports that the last sample calls for; the window of each starts anew. Each gets its log line.
    // None of a resource type of which one is on its way, and none at all when the process turns out to be
    // another by now.
    std::vector<Report> TakeReports(const Reporter& reporter);

  private:
    bool IsSame() const;
    Report ReportOf(const Breach& breach, int32_t uid) const;

    const pid_t pid_;
    const int64_t startTime_;
    const std::string name_;
    const UniqueFd cmdline_;
    const std::span<const Rule> rules_;
    ProcessMeter meter_;
    ProcessWindows windows_;
};

}  // namespace KITE::Linux::Sampling
