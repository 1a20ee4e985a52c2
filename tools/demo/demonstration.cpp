#include "demo/demonstration.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <iterator>
#include <thread>

#include "demo/competition.h"

namespace KITE::Demo {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr uid_t kCompetitorUid = 61500;
constexpr milliseconds kTick{50};
// Those that must be left alone are watched for at least so long, and nobody longer than the second: three
// rounds of the staged treatment, in case a busy machine keeps the suppressed one below its quota.
constexpr milliseconds kLeastTime{12'000};
constexpr milliseconds kMostTime{32'000};
constexpr milliseconds kThawLimit{3'000};

int LastCpuOfOurs() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof(allowed), &allowed);
    int last = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        last = CPU_ISSET(static_cast<size_t>(cpu), &allowed) ? cpu : last;
    }
    return last;
}

// The last path component of the first argument.
std::string NameOfProcess(const fs::path& directory) {
    std::ifstream file(directory / "cmdline");
    std::string first;
    std::getline(file, first, '\0');
    return first.substr(first.rfind('/') + 1);
}

int64_t OwnWrittenBytes() {
    std::ifstream file("/proc/self/io");
    for (std::string label; file >> label;) {
        int64_t value = 0;
        if (file >> value && label == "write_bytes:") {
            return value;
        }
    }
    return 0;
}

// Whether what is written to the file counts as sent to storage: not so on tmpfs.
bool CountsWrites(int fd) {
    const std::vector<char> piece(size_t{256} << 10, 'x');
    const int64_t before = OwnWrittenBytes();
    const bool isWritten =
        pwrite(fd, piece.data(), piece.size(), 0) == static_cast<ssize_t>(piece.size()) && fdatasync(fd) == 0;
    return isWritten && OwnWrittenBytes() - before >= static_cast<int64_t>(piece.size());
}

// A file without a name, gone with its last descriptor. Not every file system knows such files.
UniqueFd MakeNamelessFile(const fs::path& directory) {
    UniqueFd file(open(directory.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (!file) {
        std::string pattern = directory / "kite-run-XXXXXX";
        file = UniqueFd(mkostemp(pattern.data(), O_CLOEXEC));
        if (file) {
            unlink(pattern.c_str());
        }
    }
    return file;
}

UniqueFd MakeFileOnDisk(const fs::path& buildDirectory) {
    for (const fs::path& directory :
         {buildDirectory, fs::path("/var/tmp"), fs::path("/var/lib"), fs::path("/")}) {
        UniqueFd file = MakeNamelessFile(directory);
        if (file && CountsWrites(file.Get())) {
            return file;
        }
    }
    return {};
}

// Each kind of thing that happened, in the order of its first time, with how often: a busy machine can take
// the staged treatment through several rounds.
std::string HistoryText(const Observer& observer) {
    std::string text;
    std::set<Happening> told;
    for (const Happening happening : observer.History()) {
        // Regrouping is how the rest is done; it matters where nothing is to happen.
        const bool matters = happening != Happening::kMoved || observer.Of().fate == Fate::kUntouched;
        if (matters && told.insert(happening).second) {
            const auto times = std::ranges::count(observer.History(), happening);
            text += (text.empty() ? "" : ", ") + HappeningText(happening);
            text += times > 1 ? " x" + std::to_string(times) : "";
        }
    }
    return text.empty() ? "ran on, up to " + MeasureText(observer.Of().measure, observer.Peak()) : text;
}

}  // namespace

Demonstration::Demonstration(Loop& loop, KiteSystem& system, Display& display, const SystemOptions& options)
    : loop_(loop),
      system_(system),
      display_(display),
      options_(options),
      contestedCpu_(LastCpuOfOurs()),
      log_(options.rawLog) {}

std::optional<std::string> Demonstration::FindNamesake() {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", error)) {
        const std::string pid = entry.path().filename();
        const bool isProcess = std::isdigit(static_cast<unsigned char>(pid.front())) != 0;
        const std::string name = isProcess ? NameOfProcess(entry) : "";
        if (std::ranges::find(Programs(), name, &Program::name) != Programs().end()) {
            std::string text = "a process named ";
            text.append(name).append(" is running, pid ").append(pid);
            return text.append(": the service would treat it too; end it first");
        }
    }
    return std::nullopt;
}

bool Demonstration::StartProgram(const Program& program, std::string& error) {
    constexpr int kFileFd = 3;
    Command command;
    command.executable =
        program.body.empty() ? fs::path("/usr/bin") / program.name : options_.binaryDirectory / "misbehave";
    command.arguments = {program.name};
    command.arguments.insert(command.arguments.end(), program.body.begin(), program.body.end());
    command.uid = program.uid;
    if (program.fate == Fate::kStages) {
        command.cpu = contestedCpu_;
    }
    UniqueFd file;
    if (program.measure == Measure::kWrites) {
        file = MakeFileOnDisk(options_.rawLog.parent_path());
        if (!file) {
            error = "no disk was found that counts what is written to it";
            return false;
        }
        command.descriptors.emplace_back(file.Get(), kFileFd);
        command.arguments.push_back(std::to_string(kFileFd));
    }
    std::unique_ptr<Child> child = Child::Start(command, error);
    if (!child) {
        return false;
    }
    auto observer = std::make_unique<Observer>(program, *child);
    observer->Look(Clock::now());
    running_.push_back({std::move(child), std::move(observer)});
    return true;
}

bool Demonstration::StartCompetitor(std::string& error) {
    std::array<int, 2> to{};
    std::array<int, 2> from{};
    if (pipe2(to.data(), O_CLOEXEC) != 0) {
        error = ErrorText("pipe", errno);
        return false;
    }
    const UniqueFd theirInput(to[0]);
    toCompetitor_ = UniqueFd(to[1]);
    if (pipe2(from.data(), O_CLOEXEC) != 0) {
        error = ErrorText("pipe", errno);
        return false;
    }
    fromCompetitor_ = UniqueFd(from[0]);
    const UniqueFd theirOutput(from[1]);
    Command command;
    command.executable = options_.binaryDirectory / "misbehave";
    command.arguments = {"competitor", "compete"};
    command.uid = kCompetitorUid;
    command.cpu = contestedCpu_;
    command.descriptors = {{theirInput.Get(), STDIN_FILENO}, {theirOutput.Get(), STDOUT_FILENO}};
    competitor_ = Child::Start(command, error);
    return competitor_ != nullptr;
}

pid_t Demonstration::PidOf(const std::string& name) const {
    const auto found =
        std::ranges::find_if(running_, [&](const Running& one) { return one.observer->Of().name == name; });
    return found == running_.end() ? 0 : found->child->Pid();
}

bool Demonstration::WriteDeviceState() const {
    constexpr int kDataTransfer = 1;
    const auto uidOf = [](const std::string& name) {
        return std::ranges::find(Programs(), name, &Program::name)->uid;
    };
    const json call{{"uid", uidOf("video_call")}, {"processes", {PidOf("video_call")}}, {"foreground", true}};
    const json upload{
        {"uid", uidOf("backup_upload")}, {"pid", PidOf("backup_upload")}, {"types", {kDataTransfer}}};
    return system_.WriteDeviceState({{"screen_on", true},
                                     {"applications", json::array({call})},
                                     {"continuous_tasks", json::array({upload})}});
}

bool Demonstration::Start(std::string& error) {
    if (!StartCompetitor(error)) {
        return false;
    }
    display_.StartClock();
    start_ = Clock::now();
    for (const Program& program : Programs()) {
        if (!StartProgram(program, error)) {
            return false;
        }
    }
    // The soonest report comes a second from now.
    if (!WriteDeviceState()) {
        error = "the device state cannot be written";
        return false;
    }
    competitorWatch_ = loop_.WhenReadable(fromCompetitor_.Get(), [this] { OnCompetitorDone(); });
    ticks_ = loop_.Every(kTick, [this] { Look(); });
    return true;
}

void Demonstration::Look() {
    log_.Poll([this](const std::string& line) {
        if (const std::optional<Remark> remark = ReadRemark(line)) {
            ShowRemark(*remark);
        }
    });
    for (const Running& one : running_) {
        Show(*one.observer, one.observer->Look(Clock::now()));
    }
    Compete();
}

void Demonstration::Show(const Observer& observer, const std::vector<Sighting>& sightings) const {
    for (const Sighting& sighting : sightings) {
        display_.Event(observer.Of().name, ToneOf(sighting.happening), HappeningText(sighting.happening),
                       sighting.detail);
    }
}

// What is said again and again of a program that is left alone is shown once.
void Demonstration::ShowRemark(const Remark& remark) {
    const auto isMeant = [&](const Running& one) {
        const Program& program = one.observer->Of();
        return one.child->Pid() == remark.pid || (remark.pid == 0 && program.uid == remark.uid);
    };
    const auto found = std::ranges::find_if(running_, isMeant);
    if (found == running_.end()) {
        return;
    }
    const Program& program = found->observer->Of();
    if (shown_.emplace(program.name, remark.what).second || program.fate == Fate::kStages) {
        display_.Event(program.name, remark.tone, remark.what, remark.detail);
    }
}

// Lets the competitor want the core for a moment, with pauses in between: longer ones once the other is
// suppressed, since it must get enough of the core to come to the next stage.
void Demonstration::Compete() {
    const Clock::time_point now = Clock::now();
    const bool isShown =
        std::ranges::any_of(running_, [](const Running& one) { return one.observer->IsSuppressed(); });
    const milliseconds pause = isShown ? kBurst * 4 : kBurst;
    if (isCompeting_ || now - competedAt_ < pause || competitor_->HasEnded()) {
        return;
    }
    isCompeting_ = write(toCompetitor_.Get(), "b", 1) == 1;
    for (const Running& one : running_) {
        if (isCompeting_ && one.observer->Of().fate == Fate::kStages) {
            one.observer->BeginCompetition(competitor_->Pid());
        }
    }
}

void Demonstration::OnCompetitorDone() {
    char byte = 0;
    if (read(fromCompetitor_.Get(), &byte, 1) != 1) {
        competitorWatch_.reset();
        return;
    }
    isCompeting_ = false;
    competedAt_ = Clock::now();
    for (const Running& one : running_) {
        if (one.observer->Of().fate == Fate::kStages) {
            Show(*one.observer, one.observer->EndCompetition(competitor_->Pid()));
        }
    }
}

bool Demonstration::IsOver() const {
    const bool isEachReached =
        std::ranges::all_of(running_, [](const Running& one) { return one.observer->IsFateReached(); });
    return (isEachReached && Clock::now() - start_ >= kLeastTime) || !system_.WhatFailed().empty();
}

bool Demonstration::Watch() {
    loop_.RunUntil([this] { return IsOver(); }, kMostTime);
    if (const std::string failure = system_.WhatFailed(); !failure.empty()) {
        display_.Say(Tone::kBad, failure);
    }
    return loop_.StopSignal() == 0;
}

bool Demonstration::Conclude() {
    const bool isUp = system_.WhatFailed().empty();
    display_.Say(Tone::kQuiet, "          the hosts are asked to stop, and must leave nothing frozen");
    const bool hasStopped = system_.StopHosts();
    const auto isThawed = [this] {
        return std::ranges::all_of(running_, [](const Running& one) {
            const std::vector<Happening>& history = one.observer->History();
            return one.observer->HasEnded() || history.empty() || history.back() != Happening::kFrozen;
        });
    };
    loop_.RunUntil(isThawed, kThawLimit);
    ticks_.reset();
    std::vector<Outcome> outcomes;
    for (const Running& one : running_) {
        const Observer& observer = *one.observer;
        std::string shortcoming = Shortcoming(observer);
        if (shortcoming.empty() && !observer.IsAsAtStart()) {
            shortcoming = "was not put back where it came from";
        }
        outcomes.push_back(
            {observer.Of().name, FateText(observer.Of().fate), HistoryText(observer), shortcoming});
    }
    if (!isUp || !hasStopped) {
        outcomes.push_back({"both hosts", "run, and stop when asked",
                            isUp ? "did not stop cleanly" : "failed", "see the raw log"});
    }
    display_.Table(outcomes);
    const auto met =
        std::ranges::count_if(outcomes, [](const Outcome& one) { return one.shortcoming.empty(); });
    const bool isAllMet = met == std::ssize(outcomes);
    display_.Say(isAllMet ? Tone::kGood : Tone::kBad, std::to_string(met) + " of " +
                                                          std::to_string(outcomes.size()) +
                                                          " met the fate that the policy gives");
    if (std::ranges::any_of(running_, [](const Running& one) { return !one.observer->IsFateReached(); })) {
        SayIfBusy();
    }
    return isAllMet;
}

// A suppressed process gets nothing at all on a machine that is busy, so it breaks no quota and comes to no
// further stage: as it should be, but not what is to be shown.
void Demonstration::SayIfBusy() const {
    std::ifstream file("/proc/loadavg");
    double load = 0;
    file >> load;
    const auto processors = std::thread::hardware_concurrency();
    if (load > processors + 1) {
        display_.Say(
            Tone::kWarning,
            "note: this machine is busy with other work, load average " + std::to_string(std::lround(load)) +
                " on " + std::to_string(processors) +
                " processors: a suppressed process gets nothing then, and comes to no further stage");
    }
}

}  // namespace KITE::Demo
