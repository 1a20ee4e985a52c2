// The processes that the tests have treated: kite_target MODE [ARGUMENT]
//
//   idle                waits
//   burn THREADS        uses all the processor time that it gets, in so many threads
//   breed               burns in one thread; on SIGUSR1 has a child that burns too, for a minute at most
//   thread              waits; has another thread that waits for each SIGUSR1
//   become [NAME]       waits; on SIGUSR1 executes another program, sleep 1000, under that name or its own
//   hang                waits where it cannot be interrupted, for a child that shares its memory

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

[[noreturn]] void Burn() {
    for (volatile unsigned turns = 0;;) {
        turns = turns + 1;
    }
}

[[noreturn]] void BurnInThreads(int threads) {
    std::vector<std::thread> others;
    for (int i = 1; i < threads; ++i) {
        others.emplace_back([] { Burn(); });
    }
    Burn();
}

void Wait() {
    while (true) {
        pause();
    }
}

// The signal is blocked from the start by the parent.
void AwaitSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    int signal = 0;
    sigwait(&signals, &signal);
}

void Breed() {
    std::thread burner([] { Burn(); });
    AwaitSignal();
    if (fork() == 0) {
        alarm(60);
        Burn();
    }
    Wait();
}

[[noreturn]] void Thread() {
    for (std::vector<std::thread> threads;;) {
        AwaitSignal();
        threads.emplace_back(Wait);
    }
}

void Become(const char* name) {
    AwaitSignal();
    execl("/bin/sleep", name, "1000", nullptr);
}

void Hang() {
    if (vfork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Wait();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    const char* argument = argc > 2 ? argv[2] : nullptr;
    const int number = argument == nullptr ? 1 : std::atoi(argument);
    const std::pair<std::string_view, std::function<void()>> modes[] = {
        {"idle", Wait},
        {"burn", [&] { BurnInThreads(number); }},
        {"breed", Breed},
        {"thread", Thread},
        {"become", [&] { Become(argument == nullptr ? argv[0] : argument); }},
        {"hang", Hang}};
    for (const auto& [name, run] : modes) {
        if (name == mode) {
            run();
        }
    }
    return EXIT_FAILURE;
}
