#include "private_system/waiting.h"

#include <poll.h>

#include <cerrno>

namespace KITE::Tools {

using Clock = std::chrono::steady_clock;

bool Eventually(const std::function<bool()>& condition, milliseconds limit) {
    constexpr int kPauseMs = 5;
    const auto end = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= end) {
            return false;
        }
        poll(nullptr, 0, kPauseMs);
    }
    return true;
}

bool AwaitReadable(int fd, milliseconds limit) {
    const auto end = Clock::now() + limit;
    pollfd awaited{fd, POLLIN, 0};
    int ready = 0;
    do {
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        ready = poll(&awaited, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

}  // namespace KITE::Tools
