#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "kelvra_manager/proc_files.h"
#include "kelvra_manager/report.h"
#include "kelvra_manager/watched_process.h"

namespace KITE::Linux::Sampling {

// Whether a process's name is looked at in the sample of that age, 0 being the one that found it. A fork is
// often seen before its exec, so the name is read again soon after the first look, and then ever more rarely:
// every sixteenth time, spread over the samples by pid.
bool IsLookDue(uint32_t age, pid_t pid);

// The processes of the machine, as far as the rules care. One thread.
class ProcessTable {
  public:
    static constexpr size_t kMostWatched = 2048;

    // Watches at most that many processes; more that bear a name with rules are left alone, with a warning.
    explicit ProcessTable(size_t mostWatched = kMostWatched) : mostWatched_(mostWatched) {}

    // Takes other rules; all windows start anew. The same book again changes nothing.
    void UseRules(const std::shared_ptr<const RuleBook>& book);

    // Finds processes, measures those that have rules, and returns the reports that are due.
    std::vector<Report> Sample(TimePoint at, const std::function<bool(const ReportKey&)>& isOnTheWay);

    size_t WatchedCount() const noexcept { return watchedCount_; }

  private:
    struct Known {
        ino_t inode = 0;
        uint32_t age = 0;
        uint64_t seenIn = 0;
        std::unique_ptr<WatchedProcess> watched;
    };

    void FindProcesses();
    void Meet(pid_t pid, ino_t inode);
    void Look(pid_t pid, Known& known);
    void Forget(Known& known);
    void WarnOnce(const char* problem, size_t number);

    const size_t mostWatched_;
    std::shared_ptr<const RuleBook> book_ = std::make_shared<RuleBook>(std::vector<Kelvra::ResQuotaInfo>());
    ProcessList processes_;
    std::unordered_map<pid_t, Known> known_;  // after book_, whose rules the watched ones refer to
    size_t watchedCount_ = 0;
    uint64_t sample_ = 0;
    bool warned_ = false;
};

}  // namespace KITE::Linux::Sampling
