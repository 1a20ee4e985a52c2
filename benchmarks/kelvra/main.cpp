// The Kelvra manager: what watching costs, and how fast a breach has its consequence.
#include "ipc/echo.h"
#include "kelvra/rows.h"

int main(int argc, char** argv) {
    using namespace KITE::Benchmarks;
    if (const std::optional<int> status = RunAsEcho(argc, argv)) {
        return *status;
    }
    AddSample();
    AddMonit();
    AddReaction();  // the last, since it leaves this thread on one processor
    return RunBenchmarks(argc, argv);
}
