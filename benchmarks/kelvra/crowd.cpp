#include "kelvra/crowd.h"

#include <sys/resource.h>

#include <stdexcept>

#include "kelvra_manager/proc_files.h"

namespace KITE::Benchmarks {

namespace {

// Each member costs a pidfd.
void RaiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

Kelvra::ResQuotaInfo Quota(const std::string& name, const char* type, int64_t limit) {
    Kelvra::ResQuotaInfo quota;
    quota.processName = name;
    quota.resType = type;
    quota.resource = limit;
    quota.duration = 10;
    quota.action = "warning";
    return quota;
}

}  // namespace

size_t ProcessCount() {
    size_t count = 0;
    Linux::Sampling::ProcessList().ForEach([&](pid_t, ino_t) { ++count; });
    return count;
}

std::string WatchedName(size_t index) {
    return "watched_daemon_" + std::to_string(index);
}

std::vector<Kelvra::ResQuotaInfo> WatchedQuotas() {
    constexpr int64_t kMuchMemoryKiB = 1 << 20;
    constexpr int64_t kMuchCpuPercent = 90;
    constexpr int64_t kMuchWrittenBytes = 1 << 30;
    std::vector<Kelvra::ResQuotaInfo> quotas;
    for (size_t i = 0; i < kWatched; ++i) {
        const std::string name = WatchedName(i);
        quotas.push_back(Quota(name, "mem", kMuchMemoryKiB));
        quotas.push_back(Quota(name, "cpu", kMuchCpuPercent));
        quotas.push_back(Quota(name, "cpu_ext", kMuchCpuPercent));
        quotas.push_back(Quota(name, "io", kMuchWrittenBytes));
    }
    return quotas;
}

void Crowd::GrowTo(size_t processes) {
    RaiseDescriptorLimit();
    for (size_t count = ProcessCount(); count < processes || members_.size() < kWatched; ++count) {
        const size_t index = members_.size();
        const std::string name = index < kWatched ? WatchedName(index) : "other_" + std::to_string(index);
        members_.emplace_back(Integration::Launch{.program = "/bin/sleep", .arguments = {name, "1000000"}});
        if (!members_.back().IsStarted()) {
            throw std::runtime_error("only " + std::to_string(index) + " processes could be started");
        }
    }
}

}  // namespace KITE::Benchmarks
