#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "kelvra_manager/manager/report.h"
#include "kelvra_manager/manager/watched_process.h"
#include "proc/cpu_clock.h"
#include "proc/process_list.h"

namespace KITE::Linux::Sampling {

// The processes of the machine, as far as the rules care. One thread.
//
// A watched process is measured in every sample. Any other may execute a program that has rules at any time,
// but not without moving its CPU clock. So that is looked at, in every sample while the process is young,
// since a fork is often seen before its exec, and in every kCheckPeriod-th later on; the name is read only
// when the clock has moved. For a process that sleeps that takes a tenth of what reading the name does, and
// all of it less than a listing of /proc. That is made only when a process or thread was born since the last
// one.
class ProcessTable {
  public:
    static constexpr size_t kMostWatched = 2048;
    static constexpr uint32_t kCheckPeriod = 8;

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
        Known(pid_t itsPid, ino_t itsInode) : pid(itsPid), inode(itsInode), clock(itsPid) {}

        bool IsCheckDue(uint32_t sample) const;

        pid_t pid;
        ino_t inode;
        CpuClock clock;
        uint32_t age = 0;  // in samples, as far as that matters
        // What the clock said before the name was found to have no rules; absent when it was not found so.
        std::optional<nanoseconds> ruledOutAt = std::nullopt;
        std::unique_ptr<WatchedProcess> watched = nullptr;
    };

    // Which problems have had their line.
    struct Warned {
        bool unlisted = false;
        bool unreadable = false;
        bool tooMany = false;
    };

    void FindProcesses();
    void ListProcesses();
    void AddBorn();
    void CheckName(Known& known);
    void Look(Known& known);
    void Measure(Known& known, TimePoint at, const std::function<bool(const ReportKey&)>& isOnTheWay,
                 std::vector<Report>& reports);
    void Forget(Known& known);
    void WarnOnce(bool& warned, const char* problem, size_t number);

    const size_t mostWatched_;
    SampleRecorder* const recorder_;
    std::shared_ptr<const RuleBook> book_ = std::make_shared<RuleBook>(std::vector<Kelvra::ResQuotaInfo>());
    BirthCounter births_;
    std::optional<int64_t> birthsListed_;  // what the counter said before the last listing
    ProcessList processes_;
    std::vector<Known> known_;  // by pid; after book_, whose rules the watched ones refer to
    std::vector<Known> born_;   // those of the last listing that are not in known_ yet
    size_t watchedCount_ = 0;
    uint32_t sample_ = 0;
    Warned warned_;
};

}  // namespace KITE::Linux::Sampling
