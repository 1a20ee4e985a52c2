#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <system_error>

#include "kelvra_manager/manager/windows.h"

namespace KITE::Linux::Sampling {

// Writes what was measured into a file, for those who look at it later: one line of JSON for each watched
// process and sample, in the form that docs/linux.md describes. Bounded as the event file is. One thread.
class SampleRecorder {
  public:
    explicit SampleRecorder(std::string path) : path_(std::move(path)) {}

    void Add(pid_t pid, int64_t startTime, const std::string& name, std::span<const Rule> rules,
             const Readings& readings);
    // Writes what was added. An error gets one line, until there is another one or none.
    void Write();

  private:
    const std::string path_;
    std::string lines_;
    std::error_code error_;
};

}  // namespace KITE::Linux::Sampling
