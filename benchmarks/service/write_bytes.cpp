#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "ratio_table.h"
#include "resource_quota_control_io_helper.h"
#include "rows.h"
#include "sleepers.h"

namespace KITE::Benchmarks {

namespace {

constexpr size_t kProcesses = 2048;

uint64_t ReadBare(const char* path) {
    std::array<char, 1024> buffer;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t count = read(fd, buffer.data(), buffer.size() - 1);
    close(fd);
    if (count <= 0) {
        return 0;
    }
    buffer[static_cast<size_t>(count)] = '\0';
    constexpr std::string_view kKey = "\nwrite_bytes:";
    const size_t at = std::string_view(buffer.data(), static_cast<size_t>(count)).find(kKey);
    return at == std::string_view::npos ? 0 : std::strtoull(buffer.data() + at + kKey.size(), nullptr, 10);
}

// Started by the first loop that needs them.
const Sleepers& LiveProcesses(benchmark::State& state) {
    static const Sleepers sleepers(kProcesses);
    if (sleepers.Pids().size() < kProcesses) {
        state.SkipWithError("the processes could not be started");
    }
    return sleepers;
}

void ReadByService(benchmark::State& state) {
    const std::vector<int32_t>& pids = LiveProcesses(state).Pids();
    for (auto _ : state) {
        std::vector<uint64_t> writeBytes;
        ResourceQuotaCtl::ResourceQuotaControlIoHelper::GetIoWriteBytes(pids, writeBytes);
        benchmark::DoNotOptimize(writeBytes.data());
    }
}

void ReadByBareLoop(benchmark::State& state) {
    std::vector<std::string> paths;
    for (const int32_t pid : LiveProcesses(state).Pids()) {
        paths.push_back("/proc/" + std::to_string(pid) + "/io");
    }
    for (auto _ : state) {
        for (const std::string& path : paths) {
            benchmark::DoNotOptimize(ReadBare(path.c_str()));
        }
    }
}

}  // namespace

void AddWriteBytes() {
    AddRatio({1, "GetIoWriteBytes of 2,048 live processes", "open, read, close and a scan for the line", 1.6,
              Clock::kProcessor},
             ReadByService, ReadByBareLoop);
}

}  // namespace KITE::Benchmarks
