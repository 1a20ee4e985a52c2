#include "kelvra_manager/manager/windows.h"

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

}  // namespace

std::optional<int64_t> Window::Add(const std::optional<Reading>& reading) {
    if (rule_->type->judged == Judged::kAmount) {
        return AddAmount(reading);
    }
    return reading ? AddCounter(*reading) : std::nullopt;
}

std::optional<int64_t> Window::AddAmount(const std::optional<Reading>& reading) {
    if (!reading || reading->value <= rule_->quota.resource) {
        kept_.clear();
        return std::nullopt;
    }
    last_ = *reading;
    if (kept_.empty()) {
        kept_.push_back(*reading);
    }
    const bool isBroken = reading->at - kept_.front().at >= rule_->duration;
    return isBroken ? std::optional(reading->value) : std::nullopt;
}

std::optional<int64_t> Window::AddCounter(const Reading& reading) {
    if (!kept_.empty() && reading.value < last_.value) {
        kept_.clear();
    }
    last_ = reading;
    const auto isOldEnough = [&](const Reading& kept) { return reading.at - kept.at >= rule_->duration; };
    const auto tooYoung = std::ranges::find_if_not(kept_, isOldEnough);
    std::optional<int64_t> breach;
    if (tooYoung != kept_.begin()) {
        const auto base = tooYoung - 1;
        const int64_t growth = GrowthBetween(*base, reading);
        breach = growth > rule_->quota.resource ? std::optional(growth) : std::nullopt;
        kept_.erase(kept_.begin(), base);
    }
    if (kept_.empty() || reading.at - kept_.back().at >= rule_->duration / kReadingsOfWindow) {
        kept_.push_back(reading);
    }
    return breach;
}

int64_t Window::GrowthBetween(const Reading& from, const Reading& to) const {
    const int64_t growth = to.value - from.value;
    const bool isShare = rule_->type->judged == Judged::kShareOfTime;
    const nanoseconds span = isShare ? to.readAt - from.readAt : to.at - from.at;
    if (isShare) {
        const double percent = 100.0 * static_cast<double>(growth) / static_cast<double>(span.count());
        return span.count() <= 0 ? 0 : ToInteger(std::ceil(percent));
    }
    if (rule_->duration == nanoseconds::zero() || span <= rule_->duration) {
        return growth;
    }
    return ToInteger(static_cast<double>(growth) * static_cast<double>(rule_->duration.count()) /
                     static_cast<double>(span.count()));
}

ProcessWindows::ProcessWindows(std::span<const Rule> rules) {
    for (const Rule& rule : rules) {
        judged_.push_back({&rule, Window(rule)});
    }
}

void ProcessWindows::Add(const Readings& readings) {
    for (JudgedRule& judged : judged_) {
        const auto found = readings.find(judged.rule->type);
        judged.measured =
            judged.window.Add(found == readings.end() ? std::nullopt : std::optional(found->second));
    }
}

ProcessWindows::JudgedRule* ProcessWindows::NextBrokenOf(const ResourceType& type) {
    JudgedRule* next = nullptr;
    for (JudgedRule& judged : judged_) {
        const bool isBroken = judged.rule->type == &type && judged.measured;
        if (isBroken && (next == nullptr || judged.reportedAs < next->reportedAs)) {
            next = &judged;
        }
    }
    return next;
}

std::vector<Breach> ProcessWindows::TakeBreaches(const std::function<bool(const ResourceType&)>& isHeldBack) {
    std::vector<Breach> taken;
    for (const ResourceType& type : kResourceTypes) {
        JudgedRule* broken = NextBrokenOf(type);
        if (broken != nullptr && !isHeldBack(type)) {
            taken.push_back({broken->rule, *broken->measured});
            broken->reportedAs = ++reports_;
            broken->window.Restart();
        }
    }
    return taken;
}

}  // namespace KITE::Linux::Sampling
