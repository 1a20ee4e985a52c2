#include "private_system/process_view.h"

#include <sched.h>
#include <sys/resource.h>

#include <filesystem>
#include <iterator>
#include <thread>

#include "base/file.h"
#include "base/text.h"
#include "proc/cpu_clock.h"
#include "proc/process_file.h"
#include "proc/process_list.h"
#include "proc/process_stat.h"

namespace KITE::Tools {

namespace {

std::string ReadProcText(pid_t pid, const std::string& name) {
    return Linux::ReadFile(Linux::ProcessFilePath(pid, name)).ValueOr("");
}

}  // namespace

char ProcessView::State() const {
    return Linux::ReadProcessStat(pid_).ValueOr({}).state;
}

bool ProcessView::AwaitState(char state) const {
    return Eventually([&] { return State() == state; });
}

int64_t ProcessView::StartTime() const {
    return Linux::ReadProcessStat(pid_).ValueOr({}).startTime;
}

std::chrono::nanoseconds ProcessView::CpuTime() const {
    return Linux::CpuClock(pid_).Read().value_or(std::chrono::nanoseconds(0));
}

double ProcessView::CpuPercent(milliseconds stretch) const {
    const auto begin = std::chrono::steady_clock::now();
    const auto before = CpuTime();
    std::this_thread::sleep_for(stretch);
    const std::chrono::duration<double> used = CpuTime() - before;
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
    return 100 * used.count() / passed.count();
}

bool ProcessView::StandsStill() const {
    // A process that counts as frozen may have a few instructions to go.
    std::this_thread::sleep_for(milliseconds(10));
    const auto before = CpuTime();
    std::this_thread::sleep_for(milliseconds(300));
    return CpuTime() == before;
}

bool ProcessView::Runs() const {
    return Eventually([this, before = CpuTime()] { return CpuTime() > before + milliseconds(1); });
}

std::string ProcessView::Standing() const {
    std::string standing = ReadProcText(pid_, "cgroup");
    for (const pid_t thread : Linux::ListThreads(pid_)) {
        standing += std::to_string(thread) + " policy " + std::to_string(sched_getscheduler(thread)) +
                    " nice " + std::to_string(getpriority(PRIO_PROCESS, static_cast<id_t>(thread))) + "\n";
    }
    return standing;
}

std::vector<pid_t> ProcessView::Children() const {
    const std::string text = ReadProcText(pid_, "task/" + std::to_string(pid_) + "/children");
    std::vector<pid_t> children;
    for (const std::string_view pid : Linux::Split(text, ' ')) {
        children.push_back(static_cast<pid_t>(Linux::ParseDecimal(pid).value_or(0)));
    }
    return children;
}

size_t ProcessView::DescriptorCount() const {
    std::error_code error;
    const std::filesystem::directory_iterator all(Linux::ProcessFilePath(pid_, "fd"), error);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

size_t ProcessView::ThreadCount() const {
    return Linux::ListThreads(pid_).size();
}

size_t ProcessView::ResidentKiB() const {
    return static_cast<size_t>(Linux::NumberOfLine(ReadProcText(pid_, "status"), "VmRSS:").value_or(0));
}

int64_t ProcessView::WrittenBytes() const {
    return Linux::NumberOfLine(ReadProcText(pid_, "io"), "write_bytes:").value_or(0);
}

}  // namespace KITE::Tools
