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

std::vector<std::string> Platform::Texts(std::optional<bool> areLines,
                                         std::initializer_list<std::string_view> without) const {
    std::vector<std::string> texts;
    for (const Entry& entry : Entries()) {
        const auto isIn = [&](std::string_view word) { return entry.source.find(word) != word.npos; };
        if (entry.isLine == areLines.value_or(entry.isLine) && std::ranges::none_of(without, isIn)) {
            texts.push_back(entry.text);
        }
    }
    return texts;
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
    const auto end = [&] {
        const std::lock_guard lock(mutex_);
        return now_ + time;
    }();
    size_t count = 0;
    for (; const auto task = TakeTask(end); ++count) {
        task();
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
