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

// How many samples apart the looks at the name of an unwatched process are. A process may execute a program
// that has rules at any time, so each is looked at in every sample while they are at most 512; a look takes
// about 5 us. With more the looks are spread, over at most 16 samples: from there on they take less time than
// listing the processes.
uint32_t LookPause(size_t unwatched);

// Whether a process's name is looked at in the sample of that age, 0 being the one that found it. A fork is
// often seen before its exec, so a young process is looked at again soon whatever the pause; the looks of the
// others are spread over the samples by pid.
bool IsLookDue(uint32_t age, pid_t pid, uint32_t pause);

// The processes of the machine, as far as the rules care. One thread.
class ProcessTable {
  public:
    static constexpr size_t kMostWatched = 2048;

    // Watches at most that many processes; more that bear a name with rules are left alone, with a warning.
    // The recorder, if there is one, gets each sample; it must outlive the table.
    explicit ProcessTable(size_t mostWatched = kMostWatched, SampleRecorder* recorder = nullptr)
        : mostWatched_(mostWatched), recorder_(recorder) {}

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

    // Which problems have had their line.
    struct Warned {
        bool unlisted = false;
        bool unreadable = false;
        bool tooMany = false;
    };

    void FindProcesses();
    void Meet(pid_t pid, ino_t inode);
    void Look(pid_t pid, Known& known);
    void Forget(Known& known);
    void WarnOnce(bool& warned, const char* problem, size_t number);

    const size_t mostWatched_;
    SampleRecorder* const recorder_;
    std::shared_ptr<const RuleBook> book_ = std::make_shared<RuleBook>(std::vector<Kelvra::ResQuotaInfo>());
    ProcessList processes_;
    std::unordered_map<pid_t, Known> known_;  // after book_, whose rules the watched ones refer to
    size_t watchedCount_ = 0;
    uint64_t sample_ = 0;
    uint32_t lookPause_ = 1;
    Warned warned_;
};

}  // namespace KITE::Linux::Sampling
