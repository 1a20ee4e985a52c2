// A process with the libraries of a host, and threads that do nothing:
//
//   kite_bare_process THREADS LIBRARY...
//
// It closes its standard output once all are there, and ends when it is killed.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>
#include <vector>

int main(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        if (dlopen(argv[i], RTLD_NOW | RTLD_LOCAL) == nullptr) {
            return 1;
        }
    }
    std::vector<std::jthread> threads;
    const int count = argc > 1 ? std::atoi(argv[1]) : 0;
    for (int i = 1; i < count; ++i) {
        threads.emplace_back([] { pause(); });
    }
    constexpr char kReady[] = "ready\n";
    [[maybe_unused]] const ssize_t told = write(STDOUT_FILENO, kReady, sizeof(kReady) - 1);
    pause();
}
