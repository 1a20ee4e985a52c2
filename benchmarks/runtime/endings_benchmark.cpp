// Row 10: suppressions that end at one instant, against empty tasks of the same runtime.
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ratio_table.h"
#include "resource_quota_control_impl.h"
#include "resource_schedule.h"
#include "runtime/task_runtime.h"
#include "system_log.h"
#include "turns.h"

namespace KITE {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr size_t kTasks = 10'000;

std::vector<std::function<void()>> g_endings;
std::atomic<size_t> g_endsReported{0};

}  // namespace

// This program's own, in place of the platform's: the service's delayed tasks are kept, to be handed to the
// runtime for one instant; what it asks for is not done; its log lines are formatted and go nowhere.

void SubmitTask(std::function<void()> task, TaskAttributes /*attributes*/) {
    g_endings.push_back(std::move(task));
}

void ResSchedClient::ReportData(uint32_t /*resType*/, int64_t value,
                                const std::unordered_map<std::string, std::string>& /*payload*/) {
    constexpr int64_t kSuppressionEnds = 6;
    if (value == kSuppressionEnds) {
        g_endsReported.fetch_add(1, std::memory_order_relaxed);
    }
}

void Log::Write(Level /*level*/, const Label& /*label*/, const Site& /*site*/, const char* format, ...) {
    thread_local std::array<char, 1024> line;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
}

}  // namespace KITE

namespace KITE::Benchmarks {

namespace {

using Tasks = std::vector<std::function<void()>>;

// Suppresses as many processes as there are tasks, and takes the tasks that will end that. All bear this
// process's pid and a name that contains its name, so that the service knows them for living ones.
Tasks Suppress(ResourceQuotaCtl::ResourceQuotaControlImpl& core) {
    std::vector<Kelvra::ProcessAnomalyInfo> reports(kTasks);
    for (size_t i = 0; i < kTasks; ++i) {
        reports[i].pid = getpid();
        reports[i].resType = "cpu_ext";
        reports[i].processName = "kite_endings_benchmarks." + std::to_string(i);
    }
    core.HandleAbnormalInfos(std::move(reports));
    return std::exchange(g_endings, {});
}

// From the instant for which all are submitted to the end of the last.
SteadyClock::duration RunAtOneInstant(Linux::TaskRuntime& runtime, Tasks tasks) {
    constexpr std::chrono::milliseconds kTimeToSubmit{150};
    std::latch left(static_cast<std::ptrdiff_t>(tasks.size()));
    const SteadyClock::time_point instant = SteadyClock::now() + kTimeToSubmit;
    for (auto& task : tasks) {
        const auto delay =
            std::chrono::duration_cast<std::chrono::microseconds>(instant - SteadyClock::now());
        runtime.Submit(
            [task = std::move(task), &left] {
                task();
                left.count_down();
            },
            {.name = "end", .delay = delay});
    }
    if (SteadyClock::now() >= instant) {
        throw std::runtime_error("submitting took too long");
    }
    left.wait();
    return SteadyClock::now() - instant;
}

std::vector<Figure> MeasureEndings() {
    constexpr size_t kRuns = 41;
    const auto core = std::make_shared<ResourceQuotaCtl::ResourceQuotaControlImpl>();
    Linux::TaskRuntime runtime;
    const auto endings = [&] { return RunAtOneInstant(runtime, Suppress(*core)); };
    const auto empty = [&runtime] { return RunAtOneInstant(runtime, Tasks(kTasks, [] {})); };
    const double ratio = RatioInTurns(kRuns, endings, empty);
    if (g_endsReported != (kRuns + 1) * kTasks) {
        throw std::runtime_error("not every suppression has ended");
    }
    return {{"10,000 suppressions that end at one instant : empty tasks of the runtime", ratio, 2.0, ""}};
}

}  // namespace

}  // namespace KITE::Benchmarks

int main(int argc, char** argv) {
    using namespace KITE::Benchmarks;
    AddFigures(10, MeasureEndings);
    return RunBenchmarks(argc, argv);
}
