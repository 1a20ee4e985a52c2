#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "integration/tested_system.h"
#include "ipc/rows.h"
#include "ratio_table.h"

namespace KITE::Benchmarks {

namespace {

using namespace std::chrono_literals;
using Integration::Process;
using Integration::TestedSystem;

constexpr double kMostPrivateKiB = 2048;

// What a file of /proc says behind a key, of all such lines.
long NumbersBehind(const std::string& path, const std::string& key) {
    std::ifstream file(path);
    long sum = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key)) {
            sum += std::stol(line.substr(key.size()));
        }
    }
    return sum;
}

std::string ProcPath(const Process& process, const char* file) {
    return "/proc/" + std::to_string(process.Pid()) + "/" + file;
}

// How often a thread of the process has gone to sleep, which is how often one was woken.
long WakeUps(const Process& process) {
    long sum = 0;
    for (const auto& thread : std::filesystem::directory_iterator(ProcPath(process, "task"))) {
        sum += NumbersBehind(thread.path() / "status", "voluntary_ctxt_switches:");
    }
    return sum;
}

long PrivateKiB(const Process& process) {
    return NumbersBehind(ProcPath(process, "smaps_rollup"), "Private_Clean:") +
           NumbersBehind(ProcPath(process, "smaps_rollup"), "Private_Dirty:");
}

void Pause(const Process& process, std::chrono::milliseconds time) {
    if (process.HasEnded(time)) {
        throw std::runtime_error("a host has ended");
    }
}

// How much more is private to the host than to a process with its libraries and as many threads. That one
// runs beside the host, so that neither has the libraries' pages for itself.
double PrivateKiBAboveBare(const Process& host, const std::string& library, const std::string& directory) {
    Integration::LogFile output(directory + "/bare." + std::to_string(host.Pid()));
    const Process bare({.program = KITE_BARE_PROCESS,
                        .arguments = {"kite_bare", std::to_string(host.ThreadCount()), library},
                        .output = output.Fd()});
    if (!output.Await("ready")) {
        throw std::runtime_error("the bare process does not start");
    }
    return static_cast<double>(PrivateKiB(host) - PrivateKiB(bare));
}

// Both hosts, until the service answers.
void Start(TestedSystem& system) {
    system.Parts().logOptions.clear();
    system.StartKelvraHost();
    system.StartQuotaHost();
    Integration::BusClient client = system.Connect(Integration::kTrustedUid);
    if (!Integration::Eventually([&client] { return client.AskRunningTimes().error.empty(); })) {
        throw std::runtime_error("the service does not answer");
    }
}

std::vector<Figure> MeasureIdle() {
    constexpr int kSamples = 20;
    constexpr std::chrono::seconds kPeriod = 1s;
    TestedSystem system;
    system.SetParameters("{}");
    Start(system);
    const Process& quota = system.QuotaHost().process;
    const Process& kelvra = system.KelvraHost().process;
    // From the middle between two samples to the middle between two others.
    Pause(quota, 3s);
    const long before = WakeUps(kelvra);
    if (!Integration::Eventually([&] { return WakeUps(kelvra) != before; })) {
        throw std::runtime_error("the Kelvra manager does not sample");
    }
    Pause(quota, kPeriod / 2);
    const long quotaBefore = WakeUps(quota);
    const long kelvraBefore = WakeUps(kelvra);
    Pause(quota, kSamples * kPeriod);
    const auto quotaWakeUps = static_cast<double>(WakeUps(quota) - quotaBefore);
    const auto kelvraWakeUps = static_cast<double>(WakeUps(kelvra) - kelvraBefore);
    return {{"wake-ups of the idle quota host in 20 s", quotaWakeUps, 0, ""},
            {"wake-ups of the Kelvra manager in 20 s, of 20 samples", kelvraWakeUps, kSamples, ""},
            {"private memory of the idle quota host above a bare process",
             PrivateKiBAboveBare(quota, KITE_QUOTA_LIBRARY, system.Directory()), kMostPrivateKiB, "KiB"},
            {"private memory of the idle Kelvra manager above a bare process",
             PrivateKiBAboveBare(kelvra, KITE_KELVRA_LIBRARY, system.Directory()), kMostPrivateKiB, "KiB"}};
}

// Reports, queries of as many processes as one may ask for, and dumps.
void Load(TestedSystem& system, Integration::FakeManager& manager, JournalStandIn& journal) {
    constexpr int kRounds = 500;
    constexpr size_t kReports = 100;
    constexpr size_t kPids = 2048;
    const Process& offender = system.StartTarget("offender", {"idle"});
    const std::vector batch(kReports, Integration::Anomaly(offender, "mem", "warning"));
    const std::vector<int32_t> pids(kPids, offender.Pid());
    const Linux::UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    Integration::BusClient client = system.Connect(Integration::kTrustedUid);
    for (int i = 0; i < kRounds; ++i) {
        const bool isRight = manager.Report(batch) == 0 &&
                             Integration::WrittenBytesOf(client.AskWrittenBytes(pids)).size() == kPids &&
                             client.Dump("DumpHandledAbnormalInfo", nowhere.Get()).error.empty();
        if (!isRight) {
            throw std::runtime_error("the service does not answer under load");
        }
        journal.Drain();
    }
}

std::vector<Figure> MeasureAfterLoad(JournalStandIn& journal) {
    TestedSystem system;
    system.Parts().logOptions.clear();
    Integration::FakeManager manager(system.Address());
    system.StartQuotaHost();
    if (!manager.AwaitSubscription()) {
        throw std::runtime_error("the service does not subscribe");
    }
    Load(system, manager, journal);
    const Process& quota = system.QuotaHost().process;
    Pause(quota, 1s);
    return {{"private memory of the quota host after 50,000 reports above a bare process",
             PrivateKiBAboveBare(quota, KITE_QUOTA_LIBRARY, system.Directory()), kMostPrivateKiB, "KiB"}};
}

}  // namespace

// Row 12.
void AddIdleHosts(JournalStandIn& journal) {
    AddFigures(12, MeasureIdle);
    AddFigures(12, [&journal] { return MeasureAfterLoad(journal); });
}

}  // namespace KITE::Benchmarks
