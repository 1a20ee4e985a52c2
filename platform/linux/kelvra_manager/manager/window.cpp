#include "kelvra_manager/manager/window.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace KITE::Linux::Sampling {

namespace {

// Up to two minutes every reading of the default period is kept; a window of a day takes no more memory.
constexpr int kReadingsOfWindow = 120;

int64_t ToInteger(double value) {
    constexpr auto kMost = static_cast<double>(std::numeric_limits<int64_t>::max());
    return value >= kMost ? std::numeric_limits<int64_t>::max() : static_cast<int64_t>(value);
}

int64_t PercentOf(int64_t part, nanoseconds whole) {
    if (whole <= nanoseconds::zero()) {
        return 0;
    }
    return ToInteger(std::ceil(static_cast<double>(part) * 100.0 / static_cast<double>(whole.count())));
}

}  // namespace

std::optional<int64_t> LevelWindow::Add(const std::optional<Reading>& reading) {
    if (!reading || reading->value <= quota_) {
        aboveSince_.reset();
        return std::nullopt;
    }
    last_ = reading->at;
    if (!aboveSince_) {
        aboveSince_ = reading->at;
    }
    return reading->at - *aboveSince_ >= duration_ ? std::optional(reading->value) : std::nullopt;
}

std::optional<int64_t> CounterWindow::Add(const std::optional<Reading>& reading) {
    if (!reading) {
        return std::nullopt;
    }
    if (!kept_.empty() && reading->value < last_.value) {
        kept_.clear();
    }
    const auto isOldEnough = [&](const Reading& kept) { return reading->at - kept.at >= duration_; };
    const auto tooYoung = std::ranges::find_if_not(kept_, isOldEnough);
    std::optional<int64_t> breach;
    if (tooYoung != kept_.begin()) {
        const auto base = tooYoung - 1;
        const int64_t growth = GrowthBetween(*base, *reading);
        breach = growth > quota_ ? std::optional(growth) : std::nullopt;
        kept_.erase(kept_.begin(), base);
    }
    Keep(*reading);
    return breach;
}

int64_t CounterWindow::GrowthBetween(const Reading& from, const Reading& to) const {
    const int64_t growth = to.value - from.value;
    if (kind_ == WindowKind::kPercent) {
        return PercentOf(growth, to.readAt - from.readAt);
    }
    const nanoseconds span = to.at - from.at;
    if (duration_ == nanoseconds::zero() || span <= duration_) {
        return growth;
    }
    return ToInteger(static_cast<double>(growth) * static_cast<double>(duration_.count()) /
                     static_cast<double>(span.count()));
}

void CounterWindow::Keep(const Reading& reading) {
    last_ = reading;
    if (kept_.empty() || reading.at - kept_.back().at >= duration_ / kReadingsOfWindow) {
        kept_.push_back(reading);
    }
}

}  // namespace KITE::Linux::Sampling
