#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>

// In all of these tests the wall clock goes back or forward by a day at each reading: code that waits,
// measures or decides by it fails one of them. This takes the place of the C library's function.
extern "C" [[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* time) noexcept {
    static std::atomic<time_t> jump = 86'400;
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    if (clock == CLOCK_REALTIME) {
        time->tv_sec += jump.exchange(-jump);
    }
    return result;
}

TEST(Clock, TheWallClockJumpsInTheseTestsAndTheOthersDoNot) {
    using Wall = std::chrono::system_clock;
    using Steady = std::chrono::steady_clock;
    const auto now = Steady::now();
    const auto wall = Wall::now();
    EXPECT_GT(std::chrono::abs(Wall::now() - wall), std::chrono::hours(24));
    EXPECT_LT(Steady::now() - now, std::chrono::hours(24));
}
