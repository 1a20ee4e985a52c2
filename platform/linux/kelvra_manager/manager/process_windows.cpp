#include "kelvra_manager/manager/process_windows.h"

namespace KITE::Linux::Sampling {

namespace {

std::variant<LevelWindow, CounterWindow> WindowFor(const Rule& rule) {
    const WindowKind kind = ProcessMeter::WindowKindOf(rule.resource);
    if (kind == WindowKind::kLevel) {
        return LevelWindow(rule.quota.resource, rule.duration);
    }
    return CounterWindow(kind, rule.quota.resource, rule.duration);
}

}  // namespace

ProcessWindows::ProcessWindows(std::span<const Rule> rules) {
    judged_.reserve(rules.size());
    for (const Rule& rule : rules) {
        judged_.push_back({&rule, WindowFor(rule)});
    }
}

void ProcessWindows::Add(const Readings& readings) {
    for (JudgedRule& judged : judged_) {
        const auto found = readings.find(judged.rule->resource);
        const auto reading = found == readings.end() ? std::nullopt : std::optional(found->second);
        judged.measured = std::visit([&](auto& window) { return window.Add(reading); }, judged.window);
    }
}

ProcessWindows::JudgedRule* ProcessWindows::NextBrokenOf(Resource resource) {
    JudgedRule* next = nullptr;
    for (JudgedRule& judged : judged_) {
        const bool isBroken = judged.rule->resource == resource && judged.measured;
        if (isBroken && (next == nullptr || judged.reportedAs < next->reportedAs)) {
            next = &judged;
        }
    }
    return next;
}

std::vector<Breach> ProcessWindows::TakeBreaches(const std::function<bool(Resource)>& isHeldBack) {
    std::vector<Breach> taken;
    for (const ResourceType& type : kResourceTypes) {
        JudgedRule* broken = NextBrokenOf(type.resource);
        if (broken == nullptr || isHeldBack(type.resource)) {
            continue;
        }
        taken.push_back({broken->rule, *broken->measured});
        broken->reportedAs = ++reports_;
        std::visit([](auto& window) { window.Restart(); }, broken->window);
    }
    return taken;
}

}  // namespace KITE::Linux::Sampling
