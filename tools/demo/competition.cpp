#include "demo/competition.h"

#include <csignal>

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

std::optional<int64_t> Competition::Look(const Tools::ProcessView& rival, bool withLongPauses) {
    if (Clock::now() - begin_ < (withLongPauses && !isBout_ ? kLongPause : kBout)) {
        return std::nullopt;
    }
    begin_ = Clock::now();
    isBout_ = !isBout_;
    if (isBout_) {
        rivalTime_ = rival.CpuTime();
        ownTime_ = competitor_.CpuTime();
        competitor_.Signal(SIGCONT);
        return std::nullopt;
    }
    const auto share = rival.CpuTime() - rivalTime_;
    const auto both = share + competitor_.CpuTime() - ownTime_;
    competitor_.Signal(SIGSTOP);
    // A frozen process does not want the core, so that its share would tell nothing.
    return rival.State() == 'R' && both >= kTelling ? std::optional(share * 100 / both) : std::nullopt;
}

}  // namespace KITE::Demo
