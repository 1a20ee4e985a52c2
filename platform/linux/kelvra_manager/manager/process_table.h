#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "kelvra_manager/manager/watched_process.h"
#include "proc/cpu_clock.h"
#include "proc/process_list.h"

namespace KITE::Linux::Sampling {

// The processes of the machine, as far as the rules care. One thread.
//
// A process whose name has rules is watched: measured in every sample. Any other may execute a program that
// has rules at any time, but not without moving its CPU clock. So the clock is read, and the name only when
// the clock has moved: for a process that sleeps this takes a tenth of the time. The clocks of thousands of
// processes still take longer than all other work. So that is done in every sample while a process is young,
// since a fork is often seen before its exec, and in every kCheckPeriod-th one later on. /proc is listed only
// when a process or thread was born since the last listing.
class ProcessTable {
  public:
    static constexpr size_t kMostWatched = 2048;
    static constexpr uint32_t kCheckPeriod = 8;  // in samples, also the age from which it counts

    // Watches at most that many processes; any more with rules are left alone, with a warning, until there is
    // room. The recorder, if there is one, gets each sample; it must outlive the table.
    explicit ProcessTable(size_t mostWatched = kMostWatched, SampleRecorder* recorder = nullptr)
        : mostWatched_(mostWatched), recorder_(recorder) {}

    // Takes other rules; all windows start anew. The same book again changes nothing.
    void UseRules(const std::shared_ptr<const RuleBook>& book);

    // Finds processes, measures those that have rules, and returns the reports that are due. The reporter
    // tells which are on their way already.
    std::vector<Report> Sample(TimePoint at, const Reporter& reporter);

    size_t WatchedCount() const;

  private:
    static constexpr int64_t kUnknown = -1;

    struct Process {
        Process(pid_t pid, ino_t itsInode) : inode(itsInode), clock(pid) {}

        ino_t inode;
        CpuClock clock;
        uint32_t age = 0;  // in samples
        // What the clock said before the name was found to have no rules; absent when it was not found so.
        std::optional<nanoseconds> ruledOutAt = std::nullopt;
        std::unique_ptr<WatchedProcess> watched = nullptr;
    };

    void FindProcesses();
    bool IsCheckDue(pid_t pid, Process& process) const;
    void WatchIfItHasRules(pid_t pid, Process& process);

    const size_t mostWatched_;
    SampleRecorder* const recorder_;
    std::shared_ptr<const RuleBook> book_ = std::make_shared<RuleBook>();
    int64_t birthsListed_ = kUnknown;     // how many there were before the last listing
    std::map<pid_t, Process> processes_;  // after book_, whose rules the watched ones refer to
    uint32_t sample_ = 0;
    size_t room_ = 0;  // how many more may be watched; counted anew in each sample
    // The problems that have had their log line since the rules came: most come again with every sample.
    std::set<std::string_view> warned_;
};

}  // namespace KITE::Linux::Sampling
