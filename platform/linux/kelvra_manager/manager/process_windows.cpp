#include "kelvra_manager/manager/process_windows.h"

namespace KITE::Linux::Sampling {

namespace {

std::variant<LevelWindow, CounterWindow> WindowFor(const Rule& rule) {
    const int64_t quota = rule.quota.resource;
    switch (rule.resource) {
        case Resource::kMemory:
            return LevelWindow(quota, rule.duration);
        case Resource::kIo:
            return CounterWindow(quota, rule.duration, Measure::kAmount);
        case Resource::kCpu:
        case Resource::kCpuExt:
            break;
    }
    return CounterWindow(quota, rule.duration, Measure::kPercent);
}

}  // namespace

ProcessWindows::ProcessWindows(std::span<const Rule> rules) {
    judged_.reserve(rules.size());
    for (const Rule& rule : rules) {
        judged_.push_back({&rule, WindowFor(rule), std::nullopt});
    }
}

void ProcessWindows::Add(const Measurements& sample) {
    for (Judged& judged : judged_) {
        judged.breach = Judge(judged, sample);
    }
}

std::optional<int64_t> ProcessWindows::Judge(Judged& judged, const Measurements& sample) {
    if (auto* level = std::get_if<LevelWindow>(&judged.window)) {
        if (sample.memoryKiB) {
            return level->Add(sample.at, *sample.memoryKiB);
        }
        level->Miss();
        return std::nullopt;
    }
    auto& counter = std::get<CounterWindow>(judged.window);
    if (judged.rule->resource == Resource::kIo) {
        return sample.writtenBytes ? counter.Add({sample.at, sample.at, *sample.writtenBytes}) : std::nullopt;
    }
    return sample.cpuTime ? counter.Add({sample.at, sample.cpuReadAt, sample.cpuTime->count()})
                          : std::nullopt;
}

ProcessWindows::Judged* ProcessWindows::NextBreachOf(Resource resource) {
    Judged* next = nullptr;
    for (Judged& judged : judged_) {
        const bool isBroken = judged.rule->resource == resource && judged.breach;
        if (isBroken && (next == nullptr || judged.reportedAs < next->reportedAs)) {
            next = &judged;
        }
    }
    return next;
}

std::vector<Breach> ProcessWindows::TakeBreaches(const std::function<bool(Resource)>& isHeldBack) {
    std::vector<Breach> taken;
    for (const auto& [resource, name, unit, measure, span, most, isStaged] : kResourceTypes) {
        Judged* next = NextBreachOf(resource);
        if (next == nullptr || isHeldBack(resource)) {
            continue;
        }
        taken.push_back({next->rule, *next->breach});
        next->reportedAs = ++reports_;
        std::visit([](auto& window) { window.Restart(); }, next->window);
    }
    return taken;
}

}  // namespace KITE::Linux::Sampling
