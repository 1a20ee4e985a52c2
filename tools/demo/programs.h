#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace KITE::Demo {

// What the shipped policy has in store for a program.
enum class Fate : uint8_t {
    kStages,     // suppressed, then frozen, then killed
    kKilled,     // killed, without anything before
    kFrozen,     // frozen, and thawed when the host stops
    kUntouched,  // runs on as if there were no service
};

// Which of its resources tells how the program is doing.
enum class Measure : uint8_t { kCpu, kMemory, kWrites };

// A program that the demonstration lets loose.
struct Program {
    std::string name;   // its argv[0], which the policy knows it by
    std::string story;  // what it does, and what the policy says to that
    Fate fate;
    Measure measure;
    // For one that is untouched although it is above its quota: the least that it must have reached, in the
    // measure's unit, for that to mean something.
    int64_t leastPeak;
    uid_t uid;
    std::vector<std::string> body;  // arguments of misbehave; none: the real program of that name
};

const std::vector<Program>& Programs();

std::string FateText(Fate fate);
// As "97 % of a core", "128 MiB" or "78 MiB/s".
std::string MeasureText(Measure measure, int64_t value);

}  // namespace KITE::Demo
