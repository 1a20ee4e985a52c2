#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "base/file.h"
#include "fake_platform.h"
#include "ratio_table.h"
#include "resource_quota_control_impl.h"
#include "rows.h"
#include "sleepers.h"

namespace KITE::Benchmarks {

namespace {

constexpr size_t kBatch = 100;

// Reports that a process has written too much, by a rule that asks for a warning.
Kelvra::ProcessAnomalyInfo Report(int32_t pid) {
    Kelvra::ProcessAnomalyInfo info;
    info.duration = 60;
    info.resource = 104857600;
    info.uid = 20010;
    info.pid = pid;
    info.id = 1234;
    info.action = "warning";
    info.resType = "io";
    info.processName = "kite_service_benchmarks";
    return info;
}

void HandleByService(benchmark::State& state) {
    Fake::Platform& platform = Fake::Platform::Get();
    platform.loadFile = [](const std::string& path, std::string& content) {
        content = Linux::ReadFile(path).ValueOr({});
        return !content.empty();
    };
    const Sleepers process(1);
    const auto core = std::make_shared<ResourceQuotaCtl::ResourceQuotaControlImpl>();
    while (state.KeepRunningBatch(kBatch)) {
        state.PauseTiming();
        std::vector<Kelvra::ProcessAnomalyInfo> batch(kBatch, Report(process.Pids().at(0)));
        state.ResumeTiming();
        core->HandleAbnormalInfos(std::move(batch));
    }
}

void ReadCommandLine(benchmark::State& state) {
    const Sleepers process(1);
    const std::string path = "/proc/" + std::to_string(process.Pids().at(0)) + "/cmdline";
    for (auto _ : state) {
        std::array<char, 4096> buffer;
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(read(fd, buffer.data(), buffer.size()));
        close(fd);
        benchmark::DoNotOptimize(buffer);
    }
}

}  // namespace

void AddReports() {
    AddRatio({2, "one report handled up to a warning", "open, read, close of its /proc/PID/cmdline", 1.25,
              Clock::kProcessor},
             HandleByService, ReadCommandLine);
}

}  // namespace KITE::Benchmarks
