#pragma once

#include <sys/resource.h>

namespace KITE::Benchmarks {

// For thousands of processes, each of which costs a pidfd.
inline void RaiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace KITE::Benchmarks
