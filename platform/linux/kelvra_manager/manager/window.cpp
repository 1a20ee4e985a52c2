#include "kelvra_manager/manager/window.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace KITE::Linux::Sampling {

namespace {

// Readings kept of one window: up to two minutes every one of the default period, and a window of a day takes
// no more memory than that.
constexpr int kReadingsOfWindow = 120;

int64_t ToInteger(double value) {
    constexpr auto kMost = static_cast<double>(std::numeric_limits<int64_t>::max());
    return value >= kMost ? std::numeric_limits<int64_t>::max() : static_cast<int64_t>(value);
}

// Rounded up, so that the printed value is above the quota exactly when the precise one is.
int64_t PercentOf(int64_t part, nanoseconds whole) {
    if (whole <= nanoseconds::zero()) {
        return 0;
    }
    return ToInteger(std::ceil(static_cast<double>(part) * 100.0 / static_cast<double>(whole.count())));
}

}  // namespace

std::optional<int64_t> LevelWindow::Add(TimePoint at, int64_t level) {
    last_ = at;
    if (level <= quota_) {
        aboveSince_.reset();
        return std::nullopt;
    }
    if (!aboveSince_) {
        aboveSince_ = at;
    }
    return at - *aboveSince_ >= duration_ ? std::optional(level) : std::nullopt;
}

std::optional<int64_t> CounterWindow::Add(const CounterReading& reading) {
    if (!kept_.empty() && reading.value < last_.value) {
        kept_.clear();
    }
    const auto isOldEnough = [&](const CounterReading& kept) { return reading.at - kept.at >= duration_; };
    const auto tooYoung = std::ranges::find_if_not(kept_, isOldEnough);
    std::optional<int64_t> breach;
    if (tooYoung != kept_.begin()) {
        const auto base = tooYoung - 1;
        const int64_t measured = Measured(*base, reading);
        breach = measured > quota_ ? std::optional(measured) : std::nullopt;
        kept_.erase(kept_.begin(), base);
    }
    Keep(reading);
    return breach;
}

int64_t CounterWindow::Measured(const CounterReading& from, const CounterReading& to) const {
    const int64_t growth = to.value - from.value;
    if (measure_ == Measure::kPercent) {
        return PercentOf(growth, to.readAt - from.readAt);
    }
    const nanoseconds span = to.at - from.at;
    if (duration_ == nanoseconds::zero() || span <= duration_) {
        return growth;
    }
    return ToInteger(static_cast<double>(growth) * static_cast<double>(duration_.count()) /
                     static_cast<double>(span.count()));
}

void CounterWindow::Keep(const CounterReading& reading) {
    last_ = reading;
    if (kept_.empty() || reading.at - kept_.back().at >= duration_ / kReadingsOfWindow) {
        kept_.push_back(reading);
    }
}

}  // namespace KITE::Linux::Sampling
