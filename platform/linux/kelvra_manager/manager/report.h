#pragma once

#include <sys/types.h>

#include <compare>
#include <cstdint>
#include <functional>

#include "base/resource_types.h"
#include "kelvra_manager_client.h"

namespace KITE::Linux::Sampling {

// What a report is about. At most one of each is on its way at a time.
struct ReportKey {
    pid_t pid = 0;
    int64_t startTime = 0;  // clock ticks since boot
    Resource resource = Resource::kMemory;

    auto operator<=>(const ReportKey&) const = default;
};

struct Report {
    ReportKey key;
    Kelvra::ProcessAnomalyInfo info;
};

// Whether a report of that kind was sent and is not answered yet.
using IsOnTheWay = std::function<bool(const ReportKey&)>;

}  // namespace KITE::Linux::Sampling
