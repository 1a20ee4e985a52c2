// Row 9: from the sample that sees a breach to the death of the process.
#include <sched.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "integration/bus_client.h"
#include "integration/process.h"
#include "integration/tested_system.h"
#include "ipc/echo.h"
#include "kelvra/crowd.h"
#include "kelvra/rows.h"
#include "percentile.h"

namespace KITE::Benchmarks {

namespace {

using Integration::Process;
using Integration::TestedSystem;
using std::chrono::nanoseconds;
using Clock = std::chrono::steady_clock;

constexpr int kRounds = 300;
// All that is measured runs on one processor, as the kernel places it anyway, and its observer on another.
constexpr size_t kMeasured = 0;
constexpr size_t kObserver = 1;
constexpr std::chrono::milliseconds kRest{50};
constexpr const char* kName = "offender";
// Broken by every process in the first sample that sees it.
constexpr const char* kRule = R"({"process_name": "offender", "inherit": "", "process_quotas": {"mem": [
    {"condition": [], "id": 1, "resource_quota": 1, "duration": 0, "action": "kill"}]}})";

double Microseconds(nanoseconds time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

void RunOn(size_t processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) {
        throw std::runtime_error("this takes two processors");
    }
}

// When the pidfd became readable. The thread never waits: it would see the end only when it had got a
// processor again, behind others or, on a virtual machine, 0.3 ms late when the processor has to be woken.
class Death {
  public:
    explicit Death(const Process& process)
        : time_(std::async(std::launch::async, [this, &process] {
              RunOn(kObserver);
              isWatched_.count_down();
              const Clock::time_point end = Clock::now() + Integration::kPatience;
              while (!process.HasEnded()) {
                  if (Clock::now() > end) {
                      throw std::runtime_error("a process does not die");
                  }
              }
              return Clock::now().time_since_epoch();
          })) {
        isWatched_.wait();
    }

    nanoseconds Time() { return time_.get(); }

  private:
    std::latch isWatched_{1};
    std::future<nanoseconds> time_;
};

// As small as a program comes.
Integration::Launch Small(const std::string& name) {
    return {.program = "/bin/sleep", .arguments = {name, "1000000"}};
}

// A signal and a bus message each way: what lies between a breach and a death, but for all thinking.
class BareReaction {
  public:
    explicit BareReaction(const TestedSystem& system)
        : echo_(system.Address(), system.Directory(), 0), client_(system.Address(), Integration::kKelvraUid) {
        const Process process(Small(kName));
        request_ = Integration::ReportOf({Integration::Anomaly(process, "mem", "kill")});
    }

    double Run() {
        const Process process(Small("bystander"));
        Death death(process);
        // As before a reaction: the processor sleeps until it is time for a sample, and that lists /proc.
        // Calls that follow upon others find all in the caches, and take half the time.
        process.HasEnded(kRest);
        ProcessCount();
        const Clock::time_point begin = Clock::now();
        if (!echo_.Call(client_, request_)) {
            throw std::runtime_error("the echo does not answer");
        }
        process.Signal(SIGKILL);
        return Microseconds(death.Time() - begin.time_since_epoch());
    }

  private:
    const Echo echo_;
    Integration::BusClient client_;
    MessageParcel request_;
};

// When a breach of each process was seen.
std::map<pid_t, nanoseconds> ReadSightings(const TestedSystem& system) {
    std::map<pid_t, nanoseconds> sightings;
    std::ifstream events(system.Directory() + "/state/events.jsonl");
    for (std::string line; std::getline(events, line);) {
        const nlohmann::json event = nlohmann::json::parse(line);
        if (event["name"] == "REPORT") {
            sightings.emplace(event["PID"].get<pid_t>(), event["SEEN_NS"].get<int64_t>());
        }
    }
    return sightings;
}

std::vector<Figure> MeasureReaction() {
    RunOn(kObserver);  // throws here rather than in a thread
    RunOn(kMeasured);
    TestedSystem system;
    system.SetPolicy({kRule});
    system.StartWhole();
    BareReaction bare(system);
    std::vector<double> floors;
    std::map<pid_t, nanoseconds> deaths;
    for (int round = 0; round < kRounds; ++round) {
        const Process offender(Small(kName));
        deaths[offender.Pid()] = Death(offender).Time();
        floors.push_back(bare.Run());
    }
    std::map<pid_t, nanoseconds> sightings = ReadSightings(system);
    std::vector<double> reactions;
    reactions.reserve(deaths.size());
    for (const auto& [pid, death] : deaths) {
        reactions.push_back(Microseconds(death - sightings.at(pid)));
    }
    const double reaction = Percentile(reactions, 50);
    const double floor = Percentile(floors, 50);
    std::printf("from breach to death: median %.0f us, 99th percentile %.0f us; floor %.0f us, %.0f us\n",
                reaction, Percentile(reactions, 99), floor, Percentile(floors, 99));
    constexpr double kMicrosecondsPerMillisecond = 1000;
    return {{"from the sample that sees a breach to the death, median : a bus message each way and a signal",
             reaction / floor, 2.0, ""},
            {"from the sample that sees a breach to the death, 99th percentile",
             Percentile(reactions, 99) / kMicrosecondsPerMillisecond, 5, "ms"}};
}

}  // namespace

void AddReaction() {
    AddFigures(9, MeasureReaction);
}

}  // namespace KITE::Benchmarks
