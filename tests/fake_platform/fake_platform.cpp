#include "fake_platform.h"

#include <algorithm>

namespace KITE::Fake {

Platform& Platform::Get() {
    static Platform platform;
    return platform;
}

void Platform::Reset() {
    static_cast<Script&>(*this) = {};
    Log::minimumLevel = Log::Level::kDebug;
    const std::lock_guard lock(mutex_);
    trace_.clear();
    tasks_.clear();
    now_ = {};
    subscriber_.reset();
}

std::vector<Entry> Platform::Entries() const {
    const std::lock_guard lock(mutex_);
    return trace_;
}

std::vector<std::string> Platform::Texts(const std::function<bool(const Entry&)>& isWanted) const {
    std::vector<std::string> texts;
    for (const Entry& entry : Entries()) {
        if (isWanted(entry)) {
            texts.push_back(entry.text);
        }
    }
    return texts;
}

std::vector<std::string> Platform::Trace(std::initializer_list<std::string_view> without) const {
    return Texts([&](const Entry& entry) {
        return std::ranges::none_of(
            without, [&](std::string_view word) { return entry.source.find(word) != std::string::npos; });
    });
}

std::vector<std::string> Platform::Calls() const {
    return Texts([](const Entry& entry) { return !entry.isLine; });
}

std::vector<std::string> Platform::Log() const {
    return Texts([](const Entry& entry) { return entry.isLine; });
}

void Platform::ClearTrace() {
    const std::lock_guard lock(mutex_);
    trace_.clear();
}

void Platform::Record(Entry entry) {
    const std::lock_guard lock(mutex_);
    trace_.push_back(std::move(entry));
}

void Platform::AddTask(std::function<void()> task, std::chrono::microseconds delay) {
    const std::lock_guard lock(mutex_);
    tasks_.emplace(now_ + delay, std::move(task));
}

void Platform::KeepSubscriber(std::weak_ptr<const Kelvra::KelvraManagerTaskSubscriber> subscriber) {
    const std::lock_guard lock(mutex_);
    subscriber_ = std::move(subscriber);
}

// The first that is due until then; empty when there is none, and then that time has come.
std::function<void()> Platform::TakeTask(std::chrono::microseconds until) {
    const std::lock_guard lock(mutex_);
    const bool isDue = !tasks_.empty() && tasks_.begin()->first <= until;
    now_ = std::max(now_, isDue ? tasks_.begin()->first : until);
    return isDue ? std::move(tasks_.extract(tasks_.begin()).mapped()) : nullptr;
}

size_t Platform::Advance(std::chrono::microseconds time) {
    std::unique_lock lock(mutex_);
    const auto end = now_ + time;
    lock.unlock();
    size_t count = 0;
    while (const auto task = TakeTask(end)) {
        task();
        ++count;
    }
    return count;
}

size_t Platform::PendingTasks() const {
    const std::lock_guard lock(mutex_);
    return tasks_.size();
}

bool Platform::ReportAnomalies(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) {
    std::unique_lock lock(mutex_);
    const auto subscriber = std::const_pointer_cast<Kelvra::KelvraManagerTaskSubscriber>(subscriber_.lock());
    lock.unlock();
    if (subscriber) {
        subscriber->OnReportAbnormalProcess(infos);
    }
    return subscriber != nullptr;
}

}  // namespace KITE::Fake
