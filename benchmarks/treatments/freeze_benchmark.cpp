// Row 11: how long a busy process of many threads runs on after it was to be frozen.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/thread_signals.h"
#include "integration/process.h"
#include "percentile.h"
#include "ratio_table.h"
#include "runtime/settings.h"
#include "system_log.h"
#include "treatments/treatments.h"

namespace KITE::Benchmarks {

namespace {

using Linux::Group;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int kThreads = 16;
constexpr int kRounds = 200;
constexpr const char* kName = "burner";

void Require(bool isDone, const char* what) {
    if (!isDone) {
        throw std::runtime_error(std::string(what) + ": errno " + std::to_string(errno));
    }
}

double MillisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

class StateDirectory {
  public:
    StateDirectory() : path_(std::filesystem::temp_directory_path() / "kite-freeze-XXXXXX") {
        Require(mkdtemp(path_.data()) != nullptr, "no state directory");
        Linux::Settings settings;
        settings.stateDirectory = path_;
        Linux::SetSettings(settings);
    }
    StateDirectory(const StateDirectory&) = delete;
    StateDirectory& operator=(const StateDirectory&) = delete;
    ~StateDirectory() { std::filesystem::remove_all(path_); }

    const std::string& Path() const { return path_; }

  private:
    std::string path_;
};

// A busy process of many threads, at first in this program's groups.
class Burner {
  public:
    Burner() {
        Require(Integration::Eventually([this] { return process_.ThreadCount() == kThreads; }), "no burner");
    }

    const Integration::Process& Get() const { return process_; }
    // Until all of its threads have had the processor again.
    void RunOn() const {
        constexpr milliseconds kWhile{20};
        process_.HasEnded(kWhile);
    }

  private:
    Integration::Process process_{
        {.program = KITE_TARGET, .arguments = {kName, "burn", std::to_string(kThreads)}}};
};

// A group in which the burner is alone, as a service manager makes one for each service.
class GroupOfItsOwn {
  public:
    GroupOfItsOwn(const Linux::Cgroups& cgroups, const Burner& burner) {
        const std::optional<Group> home = cgroups.GroupOf(getpid(), Linux::Hierarchy::kUnified);
        Require(home.has_value(), "no version 2 hierarchy");
        group_ = {home->hierarchy, home->path + "/kite-burner-" + std::to_string(getpid())};
        Require(!Linux::CreateGroup(group_), "no group");
        Require(!Linux::MoveProcess(burner.Get().Pid(), group_), "the burner cannot be moved");
        home_ = *home;
    }
    GroupOfItsOwn(const GroupOfItsOwn&) = delete;
    GroupOfItsOwn& operator=(const GroupOfItsOwn&) = delete;
    ~GroupOfItsOwn() {
        Linux::MoveAll(group_, home_);
        Linux::RemoveGroup(group_);
    }

    const Group& Get() const { return group_; }

  private:
    Group group_;
    Group home_;
};

struct BareTimes {
    std::vector<double> write;   // of the write alone, which does not wait for anything
    std::vector<double> frozen;  // until the kernel's flag says that all stand still
};

// A look every 20 us: who looks without a pause keeps a processor from the threads that have to stop.
void AwaitFlag(int events) {
    constexpr timespec kBetweenLooks{0, 20'000};
    std::array<char, 256> text{};
    while (std::string_view(text.data(), text.size()).find("frozen 1") == std::string_view::npos) {
        nanosleep(&kBetweenLooks, nullptr);
        Require(pread(events, text.data(), text.size(), 0) > 0, "cgroup.events cannot be read");
    }
}

BareTimes TimeWrites(const Group& group, const Burner& burner) {
    const Linux::UniqueFd file(open((group.path + "/cgroup.freeze").c_str(), O_WRONLY | O_CLOEXEC));
    const Linux::UniqueFd events(open((group.path + "/cgroup.events").c_str(), O_RDONLY | O_CLOEXEC));
    BareTimes times;
    for (int round = 0; round < kRounds; ++round) {
        burner.RunOn();
        const Clock::time_point begin = Clock::now();
        Require(pwrite(file.Get(), "1", 1, 0) == 1, "cgroup.freeze cannot be written");
        times.write.push_back(MillisecondsSince(begin));
        AwaitFlag(events.Get());
        times.frozen.push_back(MillisecondsSince(begin));
        Require(pwrite(file.Get(), "0", 1, 0) == 1, "cgroup.freeze cannot be written");
    }
    return times;
}

// Times from the call to where the kernel has said that all threads stand still.
std::vector<double> TimeFreezes(Linux::Treatments& treatments, const Burner& burner) {
    const Integration::Process& process = burner.Get();
    std::vector<double> times;
    for (int round = 0; round < kRounds; ++round) {
        burner.RunOn();
        const Clock::time_point begin = Clock::now();
        Require(!treatments.Freeze(process.Pid(), kName, std::nullopt), "the burner cannot be frozen");
        times.push_back(MillisecondsSince(begin));
        Require(!treatments.Thaw(process.Pid(), kName), "the burner cannot be thawed");
    }
    return times;
}

std::vector<Figure> MeasureFreeze() {
    // A program that is interrupted would leave a group and a frozen process.
    const Linux::SignalsBlocked uninterrupted;
    Log::minimumLevel = Log::Level::kWarning;  // the lines come after the freeze
    const StateDirectory state;
    const Linux::Cgroups cgroups = Linux::Cgroups::OfThisMachine();
    const Burner burner;
    Linux::Treatments treatments({.cgroups = cgroups, .records = Linux::RecordStore(state.Path())});
    Require(treatments.Remember(burner.Get().Pid(), burner.Get().StartTime(), kName),
            "the burner is not known");
    const std::vector<double> moved = TimeFreezes(treatments, burner);
    const GroupOfItsOwn group(cgroups, burner);
    const BareTimes bare = TimeWrites(group.Get(), burner);
    const std::vector<double> times = TimeFreezes(treatments, burner);
    std::printf("freeze of %d busy threads, medians: %.3f ms, bare write %.3f ms, until frozen %.3f ms\n",
                kThreads, Percentile(times, 50), Percentile(bare.write, 50), Percentile(bare.frozen, 50));
    const std::string what = "freeze of a busy process of 16 threads, 90th percentile";
    return {{what + ", alone in its group", Percentile(times, 90), 0.5, "ms"},
            {"one write to cgroup.freeze", Percentile(bare.write, 90), 0, "ms"},
            {"from that write to all stopped", Percentile(bare.frozen, 90), 0, "ms"},
            {what + ", a group to be made for it", Percentile(moved, 90), 0, "ms"}};
}

}  // namespace

}  // namespace KITE::Benchmarks

int main(int argc, char** argv) {
    KITE::Benchmarks::AddFigures(11, KITE::Benchmarks::MeasureFreeze);
    return KITE::Benchmarks::RunBenchmarks(argc, argv);
}
