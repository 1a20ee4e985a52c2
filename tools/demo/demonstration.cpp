#include "demo/demonstration.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <utility>

#include "base/event_names.h"
#include "base/file.h"
#include "base/file_names.h"
#include "base/text.h"
#include "demo/verdict.h"
#include "proc/process_list.h"
#include "proc/program.h"
#include "shared/event.h"
#include "shared/wording.h"

namespace KITE::Demo {

namespace {

using Linux::Failure;
using Linux::Result;
using nlohmann::json;
using Tools::Tone;

constexpr uid_t kCompetitorUid = 61500;
constexpr milliseconds kTick{50};
// Those that must be left alone are watched for at least so long, and none longer than the second: three
// rounds of the staged treatment, in case a busy machine keeps the suppressed one below its quota.
constexpr milliseconds kLeastTime{12'000};
constexpr milliseconds kMostTime{32'000};
constexpr milliseconds kThawLimit{3'000};

int LastCpuOfOurs() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof(allowed), &allowed);
    int last = CPU_SETSIZE - 1;
    while (last > 0 && !CPU_ISSET(static_cast<size_t>(last), &allowed)) {
        --last;
    }
    return last;
}

bool CountsWrites(const Linux::UniqueFd& file) {
    const std::string piece(size_t{256} << 10, 'x');
    const Tools::ProcessView self(getpid());
    const int64_t before = self.WrittenBytes();
    return !Linux::WriteAll(file.Get(), piece) && fdatasync(file.Get()) == 0 &&
           self.WrittenBytes() - before >= static_cast<int64_t>(piece.size());
}

// A file without a name, on a disk where what is written counts as sent to storage: not so on tmpfs. Prefers
// the directory. None where no such disk is found.
Linux::UniqueFd MakeFileOnDisk(const std::filesystem::path& directory) {
    for (const std::filesystem::path& candidate :
         {directory, std::filesystem::path("/var/tmp"), std::filesystem::path("/var/lib"),
          std::filesystem::path("/")}) {
        std::string name = candidate / "kite-run-XXXXXX";
        Linux::UniqueFd file(mkostemp(name.data(), O_CLOEXEC));
        unlink(name.c_str());
        if (file && CountsWrites(file)) {
            return file;
        }
    }
    return {};
}

bool IsThawed(const Observer& observer) {
    return observer.History().empty() || observer.History().back() != Happening::kFrozen;
}

// The table at the end. Without a shortcoming the outcome is the expected one.
void SayRow(const std::string& name, const std::string& expected, const std::string& observed,
            const std::string& shortcoming) {
    Tools::Say(fmt::format("  {:<14}  {:<27}  {:<36}  {}", name, expected, observed,
                           shortcoming.empty() ? Tools::Paint(Tone::kGood, "as it should")
                                               : Tools::Paint(Tone::kBad, "WRONG: " + shortcoming)));
}

// A suppressed process gets nothing at all on a machine that is busy, so it breaks no quota and comes to no
// further stage: as it should be, but not what is to be shown.
void SayIfBusy() {
    double load = 0;
    const unsigned processors = std::thread::hardware_concurrency();
    if (getloadavg(&load, 1) == 1 && load > processors + 1) {
        Say(Tone::kWarning,
            fmt::format("note: this machine is busy with other work, load average {:.0f} on {} processors: a "
                        "suppressed process gets nothing then, and comes to no further stage",
                        load, processors));
    }
}

}  // namespace

void Say(Tone tone, const std::string& text) {
    Tools::Say(Tools::Paint(tone, text));
}

Demonstration::Demonstration(Tools::PrivateSystem& system, int stop, std::filesystem::path misbehave,
                             std::filesystem::path build)
    : system_(system),
      stop_(stop),
      misbehave_(std::move(misbehave)),
      build_(std::move(build)),
      contestedCpu_(LastCpuOfOurs()),
      competition_(misbehave_, contestedCpu_, kCompetitorUid) {}

Result<void> Demonstration::RefuseNamesakes() {
    const auto processes = Linux::ListProcesses();
    if (!processes) {
        return processes.Why().In("/proc");
    }
    for (const auto& [pid, inode] : *processes) {
        const std::string name = Linux::ReadProcessName(pid);
        if (std::ranges::find(Programs(), name, &Program::name) != Programs().end()) {
            return Failure(fmt::format("{} is running: the service would treat it too; end it first",
                                       Tools::ProcessText(name, pid)));
        }
    }
    return {};
}

Result<void> Demonstration::Start() {
    start_ = Clock::now();
    for (const Program& program : Programs()) {
        if (Result<void> started = StartProgram(program); !started) {
            return started;
        }
    }
    // The soonest report comes a second from now.
    if (const std::error_code error = WriteDeviceState()) {
        return Failure("the device state cannot be written", error);
    }
    Result<Tools::EventFollower> events = Tools::EventFollower::Open(system_.Paths().state, true);
    if (!events) {
        return events.Why();
    }
    events_ = std::move(*events);
    return {};
}

Result<void> Demonstration::StartProgram(const Program& program) {
    Tools::Launch launch{.program = program.body.empty() ? "/usr/bin/" + program.name : misbehave_.string(),
                         .arguments = {program.name},
                         .uid = program.uid,
                         .hasOwnSession = false};
    for (const std::string_view argument : Linux::Split(program.body, ' ')) {
        launch.arguments.emplace_back(argument);
    }
    if (program.fate == Fate::kStages) {
        launch.cpu = contestedCpu_;
    }
    Linux::UniqueFd file;
    if (program.resource == Linux::Resource::kIo) {
        file = MakeFileOnDisk(build_);
        launch.output = file.Get();
        if (!file) {
            return Failure("no disk was found that counts what is written to it");
        }
    }
    const auto tell = [this](const Program& of, Happening happening, const std::string& detail) {
        ShowEvent(of.name, WordOf(happening).tone, WordOf(happening).text, detail);
    };
    const std::error_code error = programs_.emplace_back(program, launch, tell).Process().StartError();
    return error ? Result<void>(Failure(launch.program, error)) : Result<void>();
}

std::error_code Demonstration::WriteDeviceState() const {
    constexpr int kDataTransfer = 1;
    json state{{"screen_on", true}};
    for (const Observer& observer : programs_) {
        const Program& program = observer.Of();
        const pid_t pid = observer.Process().Pid();
        if (program.name == "video_call") {
            state["applications"] = {{{"uid", program.uid}, {"processes", {pid}}, {"foreground", true}}};
        }
        if (program.name == "backup_upload") {
            state["continuous_tasks"] = {{{"uid", program.uid}, {"pid", pid}, {"types", {kDataTransfer}}}};
        }
    }
    // Replaced at once, so that the service does not read half of it.
    const std::string path = system_.Paths().state + Linux::FileName::kDeviceState;
    std::error_code error = Linux::WriteFile(path + ".new", state.dump(2));
    if (!error) {
        std::filesystem::rename(path + ".new", path, error);
    }
    return error;
}

void Demonstration::Look() {
    events_->Read([this](std::string_view line) { ShowReport(line); });
    for (Observer& observer : programs_) {
        observer.Look();
        if (observer.Of().fate != Fate::kStages) {
            continue;
        }
        if (const auto share = competition_.Look(observer.Process(), observer.IsSuppressed())) {
            observer.TakeShare(*share);
        }
    }
}

// Reports are shown as the service recorded them; no verdict rests on them. A program that is left alone is
// reported again and again, which is shown once.
void Demonstration::ShowReport(std::string_view line) {
    const Result<Tools::Event> event = Linux::ReadJson(line, Tools::ReadEvent);
    if (!event || !event->Is(Linux::EventName::kReport)) {
        return;
    }
    for (const Observer& observer : programs_) {
        const Program& program = observer.Of();
        if (observer.Process().Pid() != event->pid ||
            (program.fate == Fate::kUntouched && !told_.insert(program.name).second)) {
            continue;
        }
        const std::string measured =
            Tools::MeasureText(event->resourceType, event->resource, event->duration);
        ShowEvent(program.name, Tone::kWarning, "over quota",
                  measured + (program.exemption.empty() ? "" : "; left alone: " + program.exemption));
    }
}

void Demonstration::ShowEvent(const std::string& program, Tone tone, const std::string& what,
                              const std::string& detail) const {
    const std::string moment = fmt::format("{:>7}", SecondsText(Clock::now() - start_));
    Tools::Say(fmt::format("{}  {:<14}  {}  {}", Tools::Paint(Tone::kQuiet, moment), program,
                           Tools::Paint(tone, fmt::format("{:<11}", what)), detail));
}

bool Demonstration::AreAll(bool (*condition)(const Observer&)) const {
    return std::ranges::all_of(programs_, condition);
}

void Demonstration::Watch() {
    for (auto time = Clock::duration::zero(); time < kMostTime; time = Clock::now() - start_) {
        const bool isOver = AreAll(IsFateReached) && time >= kLeastTime;
        if (isOver || !system_.WhatEnded().empty() || Tools::AwaitReadable(stop_, kTick)) {
            return;
        }
        Look();
    }
}

bool Demonstration::Conclude() {
    const std::string failure = system_.WhatEnded();
    Say(Tone::kQuiet, "          the hosts are asked to stop, and must leave nothing frozen");
    const Result<void> stopped = system_.StopHosts();
    const Clock::time_point stop = Clock::now();
    do {
        Look();
    } while (!AreAll(IsThawed) && Clock::now() - stop < kThawLimit && !Tools::AwaitReadable(stop_, kTick));
    Say(Tone::kQuiet, fmt::format("\n  {:<14}  {:<27}  {:<36}  {}", "process", "should be",
                                  "what /proc showed", "verdict"));
    size_t met = 0;
    for (const Observer& observer : programs_) {
        const std::string shortcoming = Shortcoming(observer);
        SayRow(observer.Of().name, FateText(observer.Of().fate), HistoryText(observer), shortcoming);
        met += shortcoming.empty() ? 1 : 0;
    }
    const bool hostsStopped = failure.empty() && stopped;
    if (!hostsStopped) {
        SayRow("the hosts", "run, and stop when asked", "see the raw log",
               failure.empty() ? stopped.Why().Text() : failure);
    }
    const size_t total = programs_.size() + (hostsStopped ? 0 : 1);
    Say(met == total ? Tone::kGood : Tone::kBad,
        fmt::format("\n{} of {} met the fate that the policy gives", met, total));
    if (!AreAll(IsFateReached)) {
        SayIfBusy();
    }
    return met == total;
}

}  // namespace KITE::Demo
