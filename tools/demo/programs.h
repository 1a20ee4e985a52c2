#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/resource_types.h"

namespace KITE::Demo {

// What the shipped policy does to a program.
enum class Fate : uint8_t {
    kStages,     // suppressed, then frozen, then killed
    kKilled,     // killed, without anything before
    kFrozen,     // frozen, and thawed when the host stops
    kUntouched,  // runs on as if there were no service
};

// A program that the demonstration starts.
struct Program {
    std::string name;   // its argv[0], which the policy knows it by
    std::string story;  // what it does, and what the policy says to that
    Fate fate;
    Linux::Resource resource;  // the one that it uses
    uid_t uid;
    std::string body;  // arguments of misbehave; empty: the real program of that name
    // For one that is untouched although it breaks its quota: why, and what it must have reached to have
    // broken it, in the unit of its peak (Observer::Peak).
    std::string exemption = {};
    int64_t leastPeak = 0;
};

const std::vector<Program>& Programs();

}  // namespace KITE::Demo
