#include "kelvra_manager/process_table.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <utility>

#include "kelvra_manager/proc_parse.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

uint32_t LookPause(size_t unwatched) {
    constexpr size_t kLooksPerSample = 512;
    constexpr size_t kLongestPause = 16;
    const size_t pause = (unwatched + kLooksPerSample - 1) / kLooksPerSample;
    return static_cast<uint32_t>(std::clamp<size_t>(pause, 1, kLongestPause));
}

bool IsLookDue(uint32_t age, pid_t pid, uint32_t pause) {
    const bool isPowerOfTwo = (age & (age - 1)) == 0;
    return isPowerOfTwo || (age + static_cast<uint32_t>(pid)) % pause == 0;
}

void ProcessTable::UseRules(const std::shared_ptr<const RuleBook>& book) {
    if (book == book_) {
        return;
    }
    known_.clear();
    watchedCount_ = 0;
    warned_ = {};
    book_ = book;
}

std::vector<Report> ProcessTable::Sample(TimePoint at,
                                         const std::function<bool(const ReportKey&)>& isOnTheWay) {
    FindProcesses();
    std::vector<Report> reports;
    for (auto& [pid, known] : known_) {
        if (!known.watched) {
            continue;
        }
        if (known.watched->Sample(at, recorder_) == WatchedProcess::Standing::kSame) {
            std::vector<Report> own = known.watched->TakeReports(isOnTheWay);
            reports.insert(reports.end(), std::move_iterator(own.begin()), std::move_iterator(own.end()));
        } else {
            Forget(known);
            known.age = 0;
            Look(pid, known);
        }
    }
    return reports;
}

void ProcessTable::FindProcesses() {
    ++sample_;
    lookPause_ = LookPause(known_.size() - watchedCount_);
    if (!processes_.ForEach([this](pid_t pid, ino_t inode) { Meet(pid, inode); })) {
        WarnOnce(warned_.unlisted, "/proc cannot be listed: errno", static_cast<size_t>(errno));
        return;
    }
    for (auto entry = known_.begin(); entry != known_.end();) {
        if (entry->second.seenIn == sample_) {
            ++entry;
        } else {
            Forget(entry->second);
            entry = known_.erase(entry);
        }
    }
}

void ProcessTable::Meet(pid_t pid, ino_t inode) {
    Known& known = known_[pid];
    if (known.inode != inode) {
        Forget(known);
        known.inode = inode;
        known.age = 0;
    }
    known.seenIn = sample_;
    if (!known.watched && IsLookDue(known.age, pid, lookPause_)) {
        Look(pid, known);
    }
    ++known.age;
}

void ProcessTable::Look(pid_t pid, Known& known) {
    UniqueFd cmdline = OpenProcFile(pid, "cmdline");
    if (!cmdline) {
        if (!MeansGone(errno)) {
            WarnOnce(warned_.unreadable, "a process cannot be looked at: errno", static_cast<size_t>(errno));
        }
        return;
    }
    std::array<char, kProcBufferSize> buffer;
    const std::string_view name = ProcessNameOf(ReadProcFile(cmdline, buffer).text);
    const std::span<const Rule> rules = book_->RulesFor(name);
    if (rules.empty()) {
        return;
    }
    if (watchedCount_ >= mostWatched_) {
        WarnOnce(warned_.tooMany, "more processes have quotas than can be watched:", mostWatched_);
        return;
    }
    known.watched = WatchedProcess::Open(pid, std::move(cmdline), name, rules);
    watchedCount_ += known.watched ? 1 : 0;
}

void ProcessTable::Forget(Known& known) {
    watchedCount_ -= known.watched ? 1 : 0;
    known.watched.reset();
}

// One line of a kind until the rules change: each of these would come again with every sample.
void ProcessTable::WarnOnce(bool& warned, const char* problem, size_t number) {
    if (!std::exchange(warned, true)) {
        PLATFORM_LOGW("%{public}s %{public}lu", problem, number);
    }
}

}  // namespace KITE::Linux::Sampling
