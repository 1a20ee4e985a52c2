#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "fake_platform.h"
#include "quota_files.h"
#include "ratio_table.h"
#include "res_policy_manager.h"
#include "rows.h"

namespace KITE::Benchmarks {

namespace {

using nlohmann::json;
using ResourceQuotaCtl::ResPolicyManager;
using Records = std::vector<Kelvra::ResQuotaInfo>;

constexpr PolicyShape kLarge{.processes = 10'000, .resourceTypes = 4, .rules = 2};  // some 19 MB
constexpr std::string_view kProbe = "--memory-probe";

PolicyShape Growing(size_t processes) {
    return {.processes = processes, .resourceTypes = 1, .rules = 2, .chain = 10};
}

std::string ReadText(const std::filesystem::path& path) {
    std::string text(std::filesystem::file_size(path), '\0');
    std::ifstream(path).read(text.data(), static_cast<std::streamsize>(text.size()));
    return text;
}

json Parse(const std::string& text) {
    return json::parse(text, nullptr, false, false);
}

// Free memory goes back to the system, off the clock. A service loads and exports once and takes memory that
// is new to it, so its loops and their floors do so each time.
void StartWithNewMemory(benchmark::State& state) {
    state.PauseTiming();
    malloc_trim(0);
    state.ResumeTiming();
}

// One iteration is one entry of the file, so that files of different sizes compare. What a policy holds is
// given back off the clock.
void LoadPolicy(benchmark::State& state, const PolicyShape& shape) {
    const QuotaLayer layer(QuotaText(shape));
    Fake::Platform::Get().configDirectories = {layer.Directory()};
    std::unique_ptr<ResPolicyManager> policy;
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(shape.processes))) {
        state.PauseTiming();
        policy = std::make_unique<ResPolicyManager>();
        state.ResumeTiming();
        StartWithNewMemory(state);
        if (!policy->Init()) {
            state.SkipWithError("the policy is refused");
        }
    }
}

void ParseText(benchmark::State& state, const PolicyShape& shape) {
    const std::string text = QuotaText(shape);
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(shape.processes))) {
        StartWithNewMemory(state);
        benchmark::DoNotOptimize(Parse(text));
    }
}

// A loaded policy and what it exports; both loops find the same memory in use.
struct Exported {
    Exported() {
        Fake::Platform::Get().configDirectories = {layer.Directory()};
        policy.Init();
        policy.GetAllResQuotaInfos(records);
    }

    const QuotaLayer layer{QuotaText(kLarge)};
    ResPolicyManager policy;
    Records records;
};

Exported& LargeExport(benchmark::State& state) {
    static Exported exported;
    if (exported.records.size() != 80'000) {
        state.SkipWithError("the export is not what it should be");
    }
    return exported;
}

void ExportPolicy(benchmark::State& state) {
    ResPolicyManager& policy = LargeExport(state).policy;
    for (auto _ : state) {
        StartWithNewMemory(state);
        Records records;
        policy.GetAllResQuotaInfos(records);
        benchmark::DoNotOptimize(records.data());
    }
}

void CopyRecords(benchmark::State& state) {
    const Records& records = LargeExport(state).records;
    for (auto _ : state) {
        StartWithNewMemory(state);
        Records copy = records;
        benchmark::DoNotOptimize(copy.data());
    }
}

// What a process of its own tells about its memory, in KiB.
struct Memory {
    long peak = 0;   // above what it had before, at most
    long after = 0;  // above what it had before, at the end
    long live = 0;   // what was asked of the allocator and is in use at the end
};

long StatusKib(const char* key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key)) {
            return std::stol(line.substr(line.find(':') + 1));
        }
    }
    throw std::runtime_error("no such line in /proc/self/status");
}

long LiveKib() {
    const auto info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
}

template <typename Work>
Memory Probe(Work work) {
    const long before = StatusKib("VmRSS");
    const long liveBefore = LiveKib();
    const auto kept = work();
    return {StatusKib("VmHWM") - before, StatusKib("VmRSS") - before, LiveKib() - liveBefore};
}

Memory MemoryOf(const char* work, const QuotaLayer& layer) {
    std::string self(4096, '\0');
    self.resize(
        static_cast<size_t>(std::max<ssize_t>(readlink("/proc/self/exe", self.data(), self.size()), 0)));
    const std::string command = self + ' ' + std::string(kProbe) + ' ' + work + ' ' + layer.Directory();
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(command.c_str(), "r"), &pclose);
    Memory memory;
    if (!output || std::fscanf(output.get(), "%ld %ld %ld", &memory.peak, &memory.after, &memory.live) != 3) {
        throw std::runtime_error("the process that measures its memory gave nothing");
    }
    return memory;
}

std::vector<Figure> MemoryFigures() {
    const QuotaLayer layer(QuotaText(kLarge));
    const Memory parse = MemoryOf("parse", layer);
    const Memory load = MemoryOf("init", layer);
    return {{"peak memory of Init : of the parse",
             static_cast<double>(load.peak) / static_cast<double>(parse.peak), 1.3, ""},
            {"memory kept after Init : live objects",
             static_cast<double>(load.after) / static_cast<double>(load.live), 1.5, ""}};
}

}  // namespace

void AddPolicy() {
    AddRatio(
        {3, "Init on 19 MB, 10,000 processes", "the JSON library's parse of the text", 2.0,
         Clock::kProcessor},
        [](benchmark::State& state) { LoadPolicy(state, kLarge); },
        [](benchmark::State& state) { ParseText(state, kLarge); });
    AddFigures(3, MemoryFigures);
    AddRatio(
        {4, "Init per entry, 10,000", "per entry, 1,000", 1.3, Clock::kProcessor},
        [](benchmark::State& state) { LoadPolicy(state, Growing(10'000)); },
        [](benchmark::State& state) { LoadPolicy(state, Growing(1'000)); });
    AddRatio(
        {4, "Init per entry, 100,000", "per entry, 1,000 ", 1.3, Clock::kProcessor},
        [](benchmark::State& state) { LoadPolicy(state, Growing(100'000)); },
        [](benchmark::State& state) { LoadPolicy(state, Growing(1'000)); });
    AddRatio({5, "export of 80,000 records", "one copy of them", 2.0, Clock::kProcessor}, ExportPolicy,
             CopyRecords);
}

int RunAsMemoryProbe(int argc, char** argv) {
    if (argc != 4 || argv[1] != kProbe) {
        return -1;
    }
    const std::string directory = argv[3];
    const Memory memory = argv[2] == std::string_view("init")
                              ? Probe([&] {
                                    Fake::Platform::Get().configDirectories = {directory};
                                    auto policy = std::make_unique<ResPolicyManager>();
                                    if (!policy->Init()) {
                                        throw std::runtime_error("the policy is refused");
                                    }
                                    return policy;
                                })
                              : Probe([&] { return Parse(ReadText(QuotaFileBelow(directory))); });
    std::printf("%ld %ld %ld\n", memory.peak, memory.after, memory.live);
    return 0;
}

}  // namespace KITE::Benchmarks
