#include "kelvra_manager/manager/process_table.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <limits>
#include <utility>

#include "proc/command_line.h"
#include "proc/process_file.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

constexpr uint32_t kYoung = 8;  // samples

}  // namespace

bool ProcessTable::Known::IsCheckDue(uint32_t sample) const {
    // By pid, so that the checks are spread over the samples.
    return age < kYoung || (sample + static_cast<uint32_t>(pid)) % kCheckPeriod == 0;
}

void ProcessTable::UseRules(const std::shared_ptr<const RuleBook>& book) {
    if (book == book_) {
        return;
    }
    known_.clear();
    birthsListed_.reset();
    watchedCount_ = 0;
    warned_ = {};
    book_ = book;
}

std::vector<Report> ProcessTable::Sample(TimePoint at,
                                         const std::function<bool(const ReportKey&)>& isOnTheWay) {
    ++sample_;
    FindProcesses();
    std::vector<Report> reports;
    for (Known& known : known_) {
        if (!known.watched && known.IsCheckDue(sample_)) {
            CheckName(known);
        }
        if (known.watched) {
            Measure(known, at, isOnTheWay, reports);
        }
        known.age = std::min(known.age + 1, kYoung);
    }
    return reports;
}

// Where nothing was born since the last listing there is nothing to be found. A process that has ended is
// then noticed when it is measured or checked. When births cannot be counted, each sample lists.
void ProcessTable::FindProcesses() {
    const std::optional<int64_t> births = births_.Read();
    if (births && births == birthsListed_) {
        return;
    }
    birthsListed_ = births;
    ListProcesses();
}

// The listing comes in the order of the pids, as known_ is kept: one walk through both.
void ProcessTable::ListProcesses() {
    constexpr ino_t kGone = 0;
    auto known = known_.begin();
    const auto dropUpTo = [&](pid_t pid) {
        for (; known != known_.end() && known->pid < pid; ++known) {
            Forget(*known);
            known->inode = kGone;
        }
    };
    const std::error_code error = processes_.ForEach([&](pid_t pid, ino_t inode) {
        dropUpTo(pid);
        const bool isKnown = known != known_.end() && known->pid == pid;
        if (isKnown && known->inode == inode) {
            ++known;
            return;
        }
        dropUpTo(isKnown ? pid + 1 : pid);
        born_.emplace_back(pid, inode);
    });
    if (error) {
        WarnOnce(warned_.unlisted, "/proc cannot be listed: errno", static_cast<size_t>(error.value()));
        birthsListed_.reset();
    } else {
        dropUpTo(std::numeric_limits<pid_t>::max());
    }
    std::erase_if(known_, [](const Known& one) { return one.inode == kGone; });
    AddBorn();
}

void ProcessTable::AddBorn() {
    if (born_.empty()) {
        return;
    }
    const auto old = static_cast<std::ptrdiff_t>(known_.size());
    known_.insert(known_.end(), std::move_iterator(born_.begin()), std::move_iterator(born_.end()));
    std::ranges::inplace_merge(known_, known_.begin() + old, {}, &Known::pid);
    born_.clear();
}

void ProcessTable::CheckName(Known& known) {
    const std::optional<nanoseconds> now = known.clock.Read();
    if (!now || now != known.ruledOutAt) {
        // Read before the name is: what the process does in between moves the clock.
        known.ruledOutAt = now;
        Look(known);
    }
}

void ProcessTable::Look(Known& known) {
    UniqueFd cmdline = OpenProcessFile(known.pid, "cmdline");
    if (!cmdline) {
        const std::error_code error = LastError();
        known.ruledOutAt.reset();
        if (!MeansGone(error)) {
            WarnOnce(warned_.unreadable, "a process cannot be looked at: errno",
                     static_cast<size_t>(error.value()));
        }
        return;
    }
    std::array<char, kCommandLineBuffer> buffer;
    const Result<std::string_view> text = ReadOpenFile(cmdline, buffer);
    const std::string_view name = text ? ProcessNameOf(*text) : std::string_view();
    const std::span<const Rule> rules = book_->RulesFor(name);
    if (rules.empty()) {
        return;
    }
    known.ruledOutAt.reset();
    if (watchedCount_ >= mostWatched_) {
        WarnOnce(warned_.tooMany, "more processes have quotas than can be watched:", mostWatched_);
        return;
    }
    known.watched = WatchedProcess::Open(known.pid, std::move(cmdline), name, rules);
    watchedCount_ += known.watched ? 1 : 0;
}

void ProcessTable::Measure(Known& known, TimePoint at,
                           const std::function<bool(const ReportKey&)>& isOnTheWay,
                           std::vector<Report>& reports) {
    if (known.watched->Sample(at, recorder_) == WatchedProcess::Standing::kSame) {
        std::vector<Report> own = known.watched->TakeReports(isOnTheWay);
        reports.insert(reports.end(), std::move_iterator(own.begin()), std::move_iterator(own.end()));
        return;
    }
    Forget(known);
    known.age = 0;
    Look(known);
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
