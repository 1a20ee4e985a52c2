#pragma once

#include <chrono>
#include <functional>

namespace KITE::Tools {

using std::chrono::milliseconds;

// How long to wait for what must come: a program built with sanitizers, on a busy machine.
inline constexpr milliseconds kPatience{10'000};

// Looks every few milliseconds until the condition holds, for what sends no notice. False when the time is
// over.
bool Eventually(const std::function<bool()>& condition, milliseconds limit = kPatience);

// Waits until a descriptor is readable or has been closed at its other end. False when the time is over.
bool AwaitReadable(int fd, milliseconds limit);

}  // namespace KITE::Tools
