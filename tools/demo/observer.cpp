#include "demo/observer.h"

#include <fmt/format.h>
#include <sys/wait.h>

#include <algorithm>
#include <utility>

#include "base/file.h"
#include "proc/process_file.h"
#include "proc/process_stat.h"

namespace KITE::Demo {

namespace {

using Linux::Resource;

constexpr int64_t kMiB = int64_t{1} << 20;
// Below the first a process that wants to run counts as suppressed, above the second not any more.
constexpr int64_t kSuppressedPercent = 5;
constexpr int64_t kResumedPercent = 20;
// More CPU time than this is progress. The kernel charges a frozen process some microseconds when it is moved
// to another control group; the laziest of the programs uses 3 ms in 100 ms.
constexpr milliseconds kProgress{1};

// CPU time in ns, or bytes.
int64_t AmountUsed(Resource resource, const Tools::ProcessView& process) {
    switch (resource) {
        case Resource::kMemory:
            return static_cast<int64_t>(process.ResidentKiB()) << 10;
        case Resource::kIo: {
            const auto io = Linux::ReadFile(Linux::ProcessFilePath(process.Pid(), "io"));
            return io ? Linux::NumberOfLine(*io, "write_bytes:").value_or(0) : 0;
        }
        default:
            return process.CpuTime().count();
    }
}

}  // namespace

std::string HappeningText(Happening happening) {
    constexpr const char* kTexts[] = {"suppressed", "let run", "frozen", "thawed",
                                      "regrouped",  "killed",  "ended"};
    return kTexts[static_cast<size_t>(happening)];
}

std::string SecondsText(Clock::duration time) {
    return fmt::format("{:.1f} s", std::chrono::duration<double>(time).count());
}

Observer::Observer(const Program& program, Tools::ChildProcess& process)
    : program_(program),
      process_(process),
      home_(process.Standing()),
      stillSince_(Clock::now()),
      progressAt_(stillSince_),
      secondBegin_(stillSince_) {}

bool Observer::Saw(Happening happening) const {
    return std::ranges::find(history_, happening) != history_.end();
}

bool Observer::IsAsAtStart() const {
    return process_.HasEnded() || process_.Standing() == home_;
}

Sighting Observer::Note(Happening happening, std::string detail) {
    history_.push_back(happening);
    return {happening, std::move(detail)};
}

std::optional<Sighting> Observer::Look(Clock::time_point now) {
    if (hasEnded_) {
        return std::nullopt;
    }
    if (process_.HasEnded()) {
        return LookAtEnd();
    }
    if (!Saw(Happening::kMoved) && !IsAsAtStart()) {
        history_.push_back(Happening::kMoved);
    }
    Measure(now);
    return LookAtProgress(now);
}

Sighting Observer::LookAtEnd() {
    hasEnded_ = true;
    const int status = process_.AwaitEnd().value_or(0);
    const bool isKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    return isKilled ? Note(Happening::kKilled, "by SIGKILL, " + Total())
                    : Note(Happening::kEnded, Tools::EndText(status));
}

std::optional<Sighting> Observer::LookAtProgress(Clock::time_point now) {
    const char state = Linux::ReadProcessStat(process_.Pid()).ValueOr({}).state;
    const std::chrono::nanoseconds cpu = process_.CpuTime();
    const bool hasProgress = cpu > progressCpu_ + kProgress;
    longestPause_ = std::max(longestPause_, now - progressAt_);
    if (hasProgress) {
        progressAt_ = now;
        progressCpu_ = cpu;
    }
    if (hasProgress && std::exchange(isFrozen_, false)) {
        return Note(Happening::kThawed,
                    "runs again, after " + SecondsText(now - std::exchange(stillSince_, now)));
    }
    if (hasProgress || (!isFrozen_ && (state == 'R' || state == 'D'))) {
        stillSince_ = now;
    }
    if (isFrozen_ || now - stillSince_ < kStandstill) {
        return std::nullopt;
    }
    isFrozen_ = true;
    return Note(Happening::kFrozen,
                fmt::format("no CPU time for {} ms, state {}", kStandstill.count(), state));
}

// Of memory the amount now, of the others the amount in each second.
void Observer::Measure(Clock::time_point now) {
    used_ = AmountUsed(program_.resource, process_);
    if (program_.resource == Resource::kMemory) {
        peak_ = std::max(peak_, used_ / kMiB);
        return;
    }
    const std::chrono::duration<double> time = now - secondBegin_;
    if (time < std::chrono::seconds(1)) {
        return;
    }
    const double perSecond = static_cast<double>(used_ - secondBase_) / time.count();
    const double unit = program_.resource == Resource::kIo ? kMiB : 1e7;  // 1 % of a core in ns a second
    peak_ = std::max(peak_, static_cast<int64_t>(perSecond / unit));
    secondBegin_ = now;
    secondBase_ = used_;
}

std::string Observer::Total() const {
    switch (program_.resource) {
        case Resource::kMemory:
            return fmt::format("with {} MiB", peak_);
        case Resource::kIo:
            return fmt::format("after writing {} MiB", used_ / kMiB);
        default:
            return "after " + SecondsText(std::chrono::nanoseconds(used_)) + " of CPU time";
    }
}

std::optional<Sighting> Observer::TakeShare(int64_t percent) {
    const int64_t before = std::exchange(share_, percent);
    if (!isSuppressed_ && percent <= kSuppressedPercent) {
        isSuppressed_ = true;
        return Note(Happening::kSuppressed,
                    fmt::format("gets {} % beside a competitor, {} % before", percent, before));
    }
    if (isSuppressed_ && percent >= kResumedPercent) {
        isSuppressed_ = false;
        return Note(Happening::kResumed, fmt::format("gets {} % beside a competitor", percent));
    }
    return std::nullopt;
}

}  // namespace KITE::Demo
