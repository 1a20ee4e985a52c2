// The programs that the demonstration starts, each started under a name of the quota file:
//
//   misbehave cpu PERCENT     uses so much of a core
//   misbehave memory MIB      takes so much memory, 16 MiB at a time, and goes on using it
//   misbehave write           writes to standard output without end, at most 80 MiB/s, over the same 64 MiB
//
// Arguments have no slash: the quota service takes what follows the last one for the process's name.

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr size_t kMiB = size_t{1} << 20;

void PauseUntil(Clock::time_point moment) {
    const auto sinceEpoch = moment.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    const timespec wake{seconds.count(), std::chrono::nanoseconds(sinceEpoch - seconds).count()};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) {
    }
}

int UseCpu(int percent) {
    constexpr milliseconds kPeriod{100};
    const std::chrono::nanoseconds share = kPeriod * percent / 100;
    for (;;) {
        const Clock::time_point begin = Clock::now();
        timespec start{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start);
        timespec now = start;
        while ((now.tv_sec - start.tv_sec) * 1'000'000'000 + now.tv_nsec - start.tv_nsec < share.count()) {
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        }
        PauseUntil(begin + kPeriod);
    }
}

void Touch(std::span<char> memory) {
    constexpr size_t kPage = 4096;
    for (size_t i = 0; i < memory.size(); i += kPage) {
        *static_cast<volatile char*>(&memory[i]) = 1;
    }
}

int UseMemory(int mebibytes) {
    constexpr size_t kPiece = 16 * kMiB;
    constexpr milliseconds kPause{100};
    std::vector<std::span<char>> pieces;
    for (;;) {
        if (pieces.size() * kPiece < static_cast<size_t>(mebibytes) * kMiB) {
            void* memory = mmap(nullptr, kPiece, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (memory == MAP_FAILED) {
                return 1;
            }
            pieces.emplace_back(static_cast<char*>(memory), kPiece);
        }
        for (const std::span<char> piece : pieces) {
            Touch(piece);
        }
        PauseUntil(Clock::now() + kPause);
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
        PauseUntil(begin + kPeriod);
    }
}

std::optional<int> NumberOf(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size() && number > 0;
    return isNumber ? std::optional(number) : std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view body = argc > 1 ? argv[1] : "";
    const std::optional<int> number = argc > 2 ? NumberOf(argv[2]) : std::nullopt;
    if (number && body == "cpu") {
        return UseCpu(*number);
    }
    if (number && body == "memory") {
        return UseMemory(*number);
    }
    return body == "write" ? FloodDisk() : 2;
}
