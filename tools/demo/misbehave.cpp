// The programs that the demonstration starts, each started under a name of the quota file:
//
//   misbehave cpu PERCENT     uses so much of a core
//   misbehave memory MIB      takes so much memory, 16 MiB at a time, and goes on using it
//   misbehave write           writes to standard output without end, at most 80 MiB/s, over the same 64 MiB
//
// Arguments have no slash: the quota service takes what follows the last one for the process's name.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr size_t kMiB = size_t{1} << 20;

int UseCpu(int percent) {
    constexpr milliseconds kPeriod{100};
    const std::clock_t share = CLOCKS_PER_SEC / 10 * percent / 100;
    for (;;) {
        const Clock::time_point begin = Clock::now();
        const std::clock_t end = std::clock() + share;
        while (std::clock() < end) {
        }
        std::this_thread::sleep_until(begin + kPeriod);
    }
}

int UseMemory(size_t bytes) {
    constexpr size_t kPiece = 16 * kMiB;
    constexpr size_t kPage = 4096;
    constexpr milliseconds kPause{100};
    std::vector<char> memory;
    memory.reserve(bytes);
    for (;;) {
        memory.resize(std::min(memory.size() + kPiece, bytes));
        for (size_t i = 0; i < memory.size(); i += kPage) {
            *static_cast<volatile char*>(&memory[i]) = 1;
        }
        std::this_thread::sleep_for(kPause);
    }
}

int FloodDisk() {
    constexpr size_t kPiece = 4 * kMiB;
    constexpr off_t kFileSize = 64 * kMiB;
    constexpr milliseconds kPeriod{50};
    const std::vector<char> piece(kPiece, 'x');
    for (off_t offset = 0;; offset = (offset + static_cast<off_t>(kPiece)) % kFileSize) {
        const Clock::time_point begin = Clock::now();
        if (pwrite(STDOUT_FILENO, piece.data(), piece.size(), offset) < 0 || fdatasync(STDOUT_FILENO) != 0) {
            return 1;
        }
        std::this_thread::sleep_until(begin + kPeriod);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view body = argc > 1 ? argv[1] : "";
    const int number = argc > 2 ? std::atoi(argv[2]) : 0;
    if (number > 0 && body == "cpu") {
        return UseCpu(number);
    }
    if (number > 0 && body == "memory") {
        return UseMemory(static_cast<size_t>(number) * kMiB);
    }
    return body == "write" ? FloodDisk() : EXIT_FAILURE;
}
