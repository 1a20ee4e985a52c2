#include "fake_platform.h"

#include <algorithm>

namespace KITE::Fake {

namespace {

constexpr const char* kLevels = "DIWE";

// Answers from the platform's lists.
class AppManager : public IRemoteStub<IAppMgr> {
  public:
    int32_t GetAllRunningProcesses(std::vector<RunningProcessInfo>& infos) override {
        return Answer("GetAllRunningProcesses()", Platform::Get().runningProcesses, infos);
    }
    int32_t GetAllRenderProcesses(std::vector<RenderProcessInfo>& infos) override {
        return Answer("GetAllRenderProcesses()", Platform::Get().renderProcesses, infos);
    }
    int32_t GetForegroundApplications(std::vector<AppStateData>& infos) override {
        return Answer("GetForegroundApplications()", Platform::Get().foregroundApplications, infos);
    }

  private:
    template <typename T>
    static int32_t Answer(const char* call, const std::vector<T>& answer, std::vector<T>& infos) {
        Platform::Get().RecordCall(call);
        infos.insert(infos.end(), answer.begin(), answer.end());
        return -1;  // callers use the lists as they are
    }
};

}  // namespace

sptr<IRemoteObject> NewAppManager() {
    return MakeSptr<AppManager>();
}

Platform& Platform::Get() {
    static Platform platform;
    return platform;
}

Platform::Platform() {
    Log::minimumLevel = Log::Level::kDebug;
}

void Platform::Reset() {
    static_cast<Script&>(*this) = {};
    Log::minimumLevel = Log::Level::kDebug;
    const std::lock_guard lock(mutex_);
    trace_.clear();
    lines_.clear();
    tasks_.clear();
    now_ = {};
    subscriber_.reset();
}

std::vector<std::string> Platform::Entries(std::optional<bool> isLine) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> texts;
    for (const Entry& entry : trace_) {
        if (!isLine || entry.isLine == *isLine) {
            texts.push_back(entry.text);
        }
    }
    return texts;
}

std::vector<LogLine> Platform::Lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
}

void Platform::ClearTrace() {
    const std::lock_guard lock(mutex_);
    trace_.clear();
    lines_.clear();
}

void Platform::RecordCall(const std::string& call) {
    if (!isTraced) {
        return;
    }
    const std::lock_guard lock(mutex_);
    trace_.push_back({false, call});
}

void Platform::RecordLine(LogLine line) {
    const std::lock_guard lock(mutex_);
    trace_.push_back(
        {true, std::string(1, kLevels[static_cast<int>(line.level)]) + ' ' + line.unit + ": " + line.text});
    lines_.push_back(std::move(line));
}

void Platform::AddTask(Task task) {
    const std::lock_guard lock(mutex_);
    task.due += now_;
    tasks_.push_back(std::move(task));
}

void Platform::KeepSubscriber(std::weak_ptr<const Kelvra::KelvraManagerTaskSubscriber> subscriber) {
    const std::lock_guard lock(mutex_);
    subscriber_ = std::move(subscriber);
}

std::chrono::microseconds Platform::Now() const {
    const std::lock_guard lock(mutex_);
    return now_;
}

std::optional<Task> Platform::TakeDueTask(std::chrono::microseconds now) {
    const std::lock_guard lock(mutex_);
    const auto first = std::ranges::min_element(tasks_, {}, &Task::due);
    if (first == tasks_.end() || first->due > now) {
        return std::nullopt;
    }
    now_ = std::max(now_, first->due);
    Task task = std::move(*first);
    tasks_.erase(first);
    return task;
}

size_t Platform::RunTasks() {
    size_t count = 0;
    while (auto task = TakeDueTask(Now())) {
        task->run();
        ++count;
    }
    return count;
}

void Platform::Advance(std::chrono::microseconds time) {
    const auto end = Now() + time;
    while (auto task = TakeDueTask(end)) {
        task->run();
    }
    const std::lock_guard lock(mutex_);
    now_ = end;
}

std::vector<std::pair<std::string, std::chrono::microseconds>> Platform::PendingTasks() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::pair<std::string, std::chrono::microseconds>> pending;
    for (const Task& task : tasks_) {
        pending.emplace_back(task.name, task.due - now_);
    }
    return pending;
}

bool Platform::ReportAnomalies(const std::vector<Kelvra::ProcessAnomalyInfo>& infos) {
    std::unique_lock lock(mutex_);
    const auto subscriber = subscriber_.lock();
    lock.unlock();
    if (subscriber) {
        std::const_pointer_cast<Kelvra::KelvraManagerTaskSubscriber>(subscriber)
            ->OnReportAbnormalProcess(infos);
    }
    return subscriber != nullptr;
}

}  // namespace KITE::Fake
