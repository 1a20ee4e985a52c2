#include "kelvra_manager/manager/process_table.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "proc/process_file.h"
#include "proc/process_stat.h"
#include "proc/program.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

void ProcessTable::UseRules(const std::shared_ptr<const RuleBook>& book) {
    if (book == book_) {
        return;
    }
    processes_.clear();
    birthsListed_ = kUnknown;
    warned_.clear();
    book_ = book;
}

std::vector<Report> ProcessTable::Sample(TimePoint at, const Reporter& reporter) {
    ++sample_;
    FindProcesses();
    room_ = mostWatched_ - WatchedCount();
    std::vector<Report> reports;
    for (auto& [pid, process] : processes_) {
        if (!process.watched && IsCheckDue(pid, process)) {
            WatchIfItHasRules(pid, process);
        }
        if (!process.watched) {
            continue;
        }
        if (process.watched->Sample(at, recorder_)) {
            std::ranges::move(process.watched->TakeReports(reporter), std::back_inserter(reports));
        } else {
            process.watched.reset();
            process.age = 0;
        }
    }
    return reports;
}

bool ProcessTable::IsCheckDue(pid_t pid, Process& process) const {
    if (process.age < kCheckPeriod) {
        ++process.age;
        return true;
    }
    // By pid, so that the checks are spread over the samples.
    return (sample_ + static_cast<uint32_t>(pid)) % kCheckPeriod == 0;
}

size_t ProcessTable::WatchedCount() const {
    return static_cast<size_t>(
        std::ranges::count_if(processes_, [](const auto& entry) { return entry.second.watched != nullptr; }));
}

// Without a birth since the last listing there is no unknown process. One that has ended is noticed when it
// is measured. Where births cannot be counted, each sample lists.
void ProcessTable::FindProcesses() {
    // Counted before listing: a process that is born in between makes the next sample list again.
    const int64_t births = CountBirths().ValueOr(kUnknown);
    if (births != kUnknown && births == birthsListed_) {
        return;
    }
    birthsListed_ = kUnknown;
    const Result<std::vector<ListedProcess>> listed = ListProcesses();
    if (!listed) {
        if (warned_.insert("unlisted").second) {
            PLATFORM_LOGW("/proc cannot be listed, so new processes are not found: %{public}s",
                          listed.Why().Text().c_str());
        }
        return;
    }
    std::map<pid_t, Process> present;
    for (const auto& [pid, inode] : *listed) {
        auto known = processes_.extract(pid);
        if (known && known.mapped().inode == inode) {
            present.insert(present.end(), std::move(known));
        } else {
            present.try_emplace(present.end(), pid, pid, inode);
        }
    }
    processes_.swap(present);
    birthsListed_ = births;
}

void ProcessTable::WatchIfItHasRules(pid_t pid, Process& process) {
    // Read before the name is: an exec in between moves the clock, so that the next sample looks again.
    const std::optional<nanoseconds> clock = process.clock.Read();
    if (clock && clock == process.ruledOutAt) {
        return;
    }
    process.ruledOutAt.reset();
    Result<UniqueFd> cmdline = OpenProcessFile(pid, "cmdline");
    if (!cmdline) {
        if (!MeansGone(cmdline.Code()) && warned_.insert("unreadable").second) {
            PLATFORM_LOGW(
                "the name of process %{public}d cannot be read, so it may escape its quotas: %{public}s", pid,
                cmdline.Why().Text().c_str());
        }
        return;
    }
    std::array<char, kCommandLineBuffer> buffer;
    const Result<std::string_view> text = ReadOpenFile(*cmdline, buffer);
    const std::string_view name = text ? ProcessNameOf(*text) : std::string_view();
    const std::span<const Rule> rules = book_->RulesFor(name);
    if (rules.empty()) {
        process.ruledOutAt = clock;
    } else if (room_ > 0) {
        if (const Result<ProcessStat> stat = ReadProcessStat(pid)) {
            process.watched =
                std::make_unique<WatchedProcess>(pid, stat->startTime, std::move(*cmdline), name, rules);
            --room_;
        }
    } else if (warned_.insert("too many").second) {
        PLATFORM_LOGW("more than %{public}lu processes have quotas; the others are not watched",
                      mostWatched_);
    }
}

}  // namespace KITE::Linux::Sampling
