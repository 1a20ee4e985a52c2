#pragma once

#include <sys/types.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"
#include "kelvra_manager/manager/process_windows.h"
#include "kelvra_manager/manager/report.h"
#include "kelvra_manager/manager/sample_recorder.h"
#include "proc/cpu_clock.h"

namespace KITE::Linux::Sampling {

// A process whose name has rules: its descriptors, its identity and its windows. One thread.
//
// The descriptor of its command line is the anchor of its identity: it answers only for this process, however
// often the pid is used again. So every sample measures first, by pid where need be, and reads the anchor
// last: if that still gives the name, everything before it was of this process and of this program. When the
// CPU clock has not moved there is nothing new to be read but the memory, and the anchor only before
// something is reported: most processes sleep through most samples, which then cost half.
class WatchedProcess {
  public:
    static constexpr int kDescriptors = 3;

    enum class Standing : uint8_t { kSame, kRenamed, kGone };

    // Use Open.
    WatchedProcess(pid_t pid, int64_t startTime, UniqueFd cmdline, std::string_view name,
                   std::span<const Rule> rules);

    // Takes the opened "cmdline" from which the name was read. Null when the process has gone. Warns when the
    // quota service would not believe a report of this process. The rules must outlive it.
    static std::unique_ptr<WatchedProcess> Open(pid_t pid, UniqueFd cmdline, std::string_view name,
                                                std::span<const Rule> rules);

    // Measures what the rules need. The sample counts only when the process is still the same; then it also
    // goes to the recorder, if there is one.
    Standing Sample(TimePoint at, SampleRecorder* recorder = nullptr);

    // The reports that the last sample calls for; the window of each starts anew. Each gets its log line.
    // None when the process turns out to be another by now, which the next sample says.
    std::vector<Report> TakeReports(const std::function<bool(const ReportKey&)>& isOnTheWay);

  private:
    void OpenWhatRulesNeed(std::span<const Rule> rules);
    void WarnIfServiceSeesAnother() const;
    std::optional<int64_t> ReadMemoryKiB();
    std::optional<int64_t> ReadWrittenBytes();
    bool HasRun();
    Standing CurrentStanding() const;
    UniqueFd OpenOrWarn(const char* name);
    // Empty, with a warning, when it could not be read.
    std::string_view Readable(const Result<std::string_view>& text, const char* name);
    void WarnUnreadable(const char* name, const std::error_code& error);
    Report ReportOf(const Breach& breach, int32_t uid, int32_t generalType) const;

    const pid_t pid_;
    const int64_t startTime_;
    const std::string name_;
    const UniqueFd cmdline_;
    UniqueFd statm_;  // open when there is a memory rule and it may be read
    UniqueFd io_;     // likewise with an io rule
    int64_t smallestMemoryQuota_;
    const CpuClock cpuClock_;
    Measurements last_;
    bool isVerified_ = false;  // whether the last sample has read the anchor
    bool warnedUnreadable_ = false;
    const std::span<const Rule> rules_;
    ProcessWindows windows_;
};

}  // namespace KITE::Linux::Sampling
