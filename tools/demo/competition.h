#pragma once

#include <chrono>

namespace KITE::Demo {

// How long the competitor keeps the core busy at a time. Short against the second of a sample, so that a
// suppressed process, which runs only in the pauses, still exceeds its quota and comes to the next stage.
inline constexpr std::chrono::milliseconds kBurst{150};

}  // namespace KITE::Demo
