#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"
#include "kelvra_manager/manager/windows.h"
#include "proc/cpu_clock.h"

namespace KITE::Linux::Sampling {

// Reads what the rules of a process need, by its pid; the caller has to check afterwards that it still is
// that process. One thread. The rules must outlive it.
class ProcessMeter {
  public:
    static constexpr int kMostDescriptors = 2;

    ProcessMeter(pid_t pid, std::string_view name, std::span<const Rule> rules);

    // Warns, once for each process, of a file that cannot be read although the process is there: its quotas
    // would silently never apply.
    Readings Read(TimePoint at);
    std::optional<int64_t> ReadUid();

  private:
    std::optional<int64_t> ReadValue(Resource resource);
    std::optional<int64_t> ReadMemoryKiB();
    std::optional<int64_t> ReadCpuTime();
    // Through a descriptor that is kept: to open a file takes several times as long as to read it.
    std::string_view ReadKept(UniqueFd& kept, const char* file, std::span<char> buffer);
    // Empty, with a warning, for what could not be read.
    std::string_view TextOrWarning(const Result<std::string_view>& text, const char* file);

    const pid_t pid_;
    const std::string name_;
    const std::span<const Rule> rules_;
    const CpuClock cpuClock_;
    UniqueFd statm_;
    UniqueFd io_;
    bool warned_ = false;
};

}  // namespace KITE::Linux::Sampling
