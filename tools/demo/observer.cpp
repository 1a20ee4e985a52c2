#include "demo/observer.h"

#include <fmt/format.h>
#include <sys/wait.h>

#include <algorithm>
#include <utility>

namespace KITE::Demo {

namespace {

using Linux::Resource;
using Tools::Tone;

// Below the first a process that wants to run counts as suppressed, above the second not any more.
constexpr int64_t kSuppressedPercent = 5;
constexpr int64_t kResumedPercent = 20;
// More CPU time than this is progress. The kernel charges a frozen process some microseconds when it is moved
// to another control group; the laziest of the programs uses 3 ms in 100 ms.
constexpr milliseconds kProgress{1};

// How the use of a resource is measured and told.
struct Usage {
    int64_t (*used)(const Tools::ProcessView& process);  // until now; of memory, now
    int64_t unit;                                        // of the total
    const char* totalText;
    int64_t peakUnit;  // of memory, of the amount; of others, of what is used in a second
    const char* peakText;
};

const Usage& UsageOf(Resource resource) {
    constexpr int64_t kKiB = 1024;
    static constexpr Usage kMemory{
        [](const Tools::ProcessView& process) { return static_cast<int64_t>(process.ResidentKiB()); }, kKiB,
        "with {:.0f} MiB", kKiB, "{} MiB"};
    static constexpr Usage kWrites{[](const Tools::ProcessView& process) { return process.WrittenBytes(); },
                                   kKiB * kKiB, "after writing {:.0f} MiB", kKiB * kKiB, "{} MiB/s"};
    static constexpr Usage kCpuTime{
        [](const Tools::ProcessView& process) { return int64_t{process.CpuTime().count()}; }, 1'000'000'000,
        "after {:.1f} s of CPU time", 10'000'000, "{} % of a core"};
    return resource == Resource::kMemory ? kMemory : resource == Resource::kIo ? kWrites : kCpuTime;
}

}  // namespace

const HappeningWord& WordOf(Happening happening) {
    // In the order of the happenings.
    static constexpr HappeningWord kWords[] = {{"suppressed", Tone::kNotice}, {"let run", Tone::kGood},
                                               {"frozen", Tone::kNotice},     {"thawed", Tone::kGood},
                                               {"regrouped", Tone::kGood},    {"killed", Tone::kBad},
                                               {"ended", Tone::kBad}};
    return kWords[static_cast<size_t>(happening)];
}

std::string SecondsText(Clock::duration time) {
    return fmt::format("{:.1f} s", std::chrono::duration<double>(time).count());
}

Observer::Observer(const Program& program, const Tools::Launch& launch, Tell tell)
    : program_(program),
      process_(launch),
      tell_(std::move(tell)),
      home_(process_.Standing()),
      stillSince_(Clock::now()),
      progressAt_(stillSince_),
      secondBegin_(stillSince_) {}

bool Observer::Saw(Happening happening) const {
    return std::ranges::find(history_, happening) != history_.end();
}

bool Observer::IsAsAtStart() const {
    return process_.HasEnded() || process_.Standing() == home_;
}

std::string Observer::PeakText() const {
    return fmt::format(fmt::runtime(UsageOf(program_.resource).peakText), peak_);
}

void Observer::Note(Happening happening, const std::string& detail) {
    history_.push_back(happening);
    tell_(program_, happening, detail);
}

void Observer::Look() {
    if (hasEnded_) {
        return;
    }
    if (process_.HasEnded()) {
        LookAtEnd();
        return;
    }
    if (!Saw(Happening::kMoved) && !IsAsAtStart()) {
        history_.push_back(Happening::kMoved);
    }
    const Clock::time_point now = Clock::now();
    Measure(now);
    LookAtProgress(now);
}

void Observer::LookAtEnd() {
    hasEnded_ = true;
    const int status = process_.AwaitEnd().value_or(0);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
        Note(Happening::kEnded, Tools::EndText(status));
        return;
    }
    const Usage& usage = UsageOf(program_.resource);
    const double total = static_cast<double>(used_) / static_cast<double>(usage.unit);
    Note(Happening::kKilled, "by SIGKILL, " + fmt::format(fmt::runtime(usage.totalText), total));
}

void Observer::LookAtProgress(Clock::time_point now) {
    const char state = process_.State();
    const std::chrono::nanoseconds cpu = process_.CpuTime();
    const bool hasProgress = cpu > progressCpu_ + kProgress;
    longestPause_ = std::max(longestPause_, now - progressAt_);
    if (hasProgress) {
        progressAt_ = now;
        progressCpu_ = cpu;
    }
    if (hasProgress && std::exchange(isFrozen_, false)) {
        Note(Happening::kThawed, "runs again, after " + SecondsText(now - stillSince_));
    }
    if (hasProgress || (!isFrozen_ && (state == 'R' || state == 'D'))) {
        stillSince_ = now;
    }
    if (!isFrozen_ && now - stillSince_ >= kStandstill) {
        isFrozen_ = true;
        Note(Happening::kFrozen, fmt::format("no CPU time for {} ms, state {}", kStandstill.count(), state));
    }
}

// Of memory the most so far, of the others the amount in each second.
void Observer::Measure(Clock::time_point now) {
    const Usage& usage = UsageOf(program_.resource);
    // Of a process that is just ending, /proc tells 0.
    used_ = std::max(used_, usage.used(process_));
    if (program_.resource == Resource::kMemory) {
        peak_ = std::max(peak_, used_ / usage.peakUnit);
        return;
    }
    const std::chrono::duration<double> time = now - secondBegin_;
    if (time < std::chrono::seconds(1)) {
        return;
    }
    const double perSecond = static_cast<double>(used_ - secondBase_) / time.count();
    peak_ = std::max(peak_, static_cast<int64_t>(perSecond / static_cast<double>(usage.peakUnit)));
    secondBegin_ = now;
    secondBase_ = used_;
}

void Observer::TakeShare(int64_t percent) {
    const int64_t before = std::exchange(share_, percent);
    if (!isSuppressed_ && percent <= kSuppressedPercent) {
        isSuppressed_ = true;
        Note(Happening::kSuppressed,
             fmt::format("gets {} % beside a competitor, {} % before", percent, before));
    } else if (isSuppressed_ && percent >= kResumedPercent) {
        isSuppressed_ = false;
        Note(Happening::kResumed, fmt::format("gets {} % beside a competitor", percent));
    }
}

}  // namespace KITE::Demo
