#include "demo/competition.h"

#include <csignal>

#include "proc/process_stat.h"

namespace KITE::Demo {

namespace {

// Short against the second of a sample.
constexpr milliseconds kBout{150};
constexpr milliseconds kLongPause{600};
// The least CPU time of both together that tells something.
constexpr milliseconds kTelling{40};

}  // namespace

Competition::Competition(const std::string& misbehave, int cpu, uid_t uid)
    : competitor_({.program = misbehave,
                   .arguments = {"competitor", "cpu", "100"},
                   .uid = uid,
                   .cpu = cpu,
                   .hasOwnSession = false}) {
    competitor_.Signal(SIGSTOP);
}

std::optional<int64_t> Competition::Look(const Tools::ProcessView& rival, bool withLongPauses,
                                         Clock::time_point now) {
    if (!bout_) {
        if (now - pauseBegin_ >= (withLongPauses ? kLongPause : kBout)) {
            bout_ = {now, rival.CpuTime(), competitor_.CpuTime()};
            competitor_.Signal(SIGCONT);
        }
        return std::nullopt;
    }
    if (now - bout_->begin < kBout) {
        return std::nullopt;
    }
    const auto own = rival.CpuTime() - bout_->rival;
    const auto both = own + competitor_.CpuTime() - bout_->competitor;
    competitor_.Signal(SIGSTOP);
    pauseBegin_ = now;
    bout_.reset();
    // A frozen process does not want the core, so that its share would tell nothing.
    const bool wantsCore = Linux::ReadProcessStat(rival.Pid()).ValueOr({}).state == 'R';
    return wantsCore && both >= kTelling ? std::optional(own * 100 / both) : std::nullopt;
}

}  // namespace KITE::Demo
