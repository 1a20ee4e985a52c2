// Row 8, processor time: the Kelvra manager's host beside monit, on the same processes with the same checks.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "integration/process.h"
#include "integration/tested_system.h"
#include "kelvra/crowd.h"
#include "kelvra/rows.h"
#include "proc/process_list.h"

namespace KITE::Benchmarks {

namespace {

using Integration::Process;
using Integration::TestedSystem;
using std::chrono::seconds;

constexpr const char* kMonit = "/usr/bin/monit";
constexpr size_t kProcesses = 2000;
constexpr seconds kTime{30};
constexpr seconds kUntilSteady{12};

// The same checks; monit too finds the processes by their names.
std::string WriteMonitConfiguration(const std::string& directory) {
    std::string text = "set daemon 1\nset log " + directory + "/monit.log\nset pidfile " + directory +
                       "/monit.pid\nset idfile " + directory + "/monit.id\nset statefile " + directory +
                       "/monit.state\n";
    for (size_t i = 0; i < kWatched; ++i) {
        text += "check process " + WatchedName(i) + " matching \"^" + WatchedName(i) +
                " \"\n"
                "  if memory > 1000 MB for 10 cycles then alert\n"
                "  if cpu > 90% for 10 cycles then alert\n"
                "  if disk write rate > 100 MB/s for 10 cycles then alert\n";
    }
    std::string path = directory + "/monitrc";
    Integration::WriteWholeFile(path, text, 0600);
    return path;
}

// Births on the machine count: the Kelvra manager lists /proc after them alone, monit at every cycle.
double SecondsOfCpu(const char* who, const Process& process) {
    std::this_thread::sleep_for(kUntilSteady);
    const auto before = process.CpuTime();
    const int64_t bornBefore = *Linux::CountBirths();
    std::this_thread::sleep_for(kTime);
    const double used = std::chrono::duration<double>(process.CpuTime() - before).count();
    std::printf("%s: %.1f ms of processor time in %ld s, in which the machine gave birth to %ld\n", who,
                used * 1000, static_cast<long>(kTime.count()), *Linux::CountBirths() - bornBefore);
    return used;
}

double MeasureManager() {
    TestedSystem system;
    system.SetParameters("{}");  // samples every second
    system.SetPolicy({WatchedPolicy(kWatched)});
    system.StartWhole();
    return SecondsOfCpu("Kelvra manager", system.KelvraHost().process);
}

double MeasureMonit() {
    std::string directory = std::filesystem::temp_directory_path() / "kite-monit-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        throw std::runtime_error("no directory for monit");
    }
    const std::string configuration = WriteMonitConfiguration(directory);
    double used = 0;
    {
        const Process monit({.program = kMonit, .arguments = {"monit", "-I", "-c", configuration}});
        used = SecondsOfCpu("monit", monit);
        if (monit.HasEnded()) {
            throw std::runtime_error("monit does not run");
        }
    }
    std::filesystem::remove_all(directory);
    return used;
}

}  // namespace

void AddMonit() {
    AddFigures(8, [] {
        if (access(kMonit, X_OK) != 0) {
            std::printf("row 8: not compared with monit, which is not installed\n");
            return std::vector<Figure>{};
        }
        Crowd crowd(kWatched);
        crowd.GrowTo(kProcesses);
        const double manager = MeasureManager();
        const double monit = MeasureMonit();
        return std::vector<Figure>{{"processor time of 30 s, 50 checks of 2000 processes : 1/50 of monit's",
                                    manager / monit * 50, 1, ""}};
    });
}

}  // namespace KITE::Benchmarks
