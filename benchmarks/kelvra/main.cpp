// The Kelvra manager: what watching costs, and how fast a breach has its consequence.
#include "kelvra/rows.h"

int main(int argc, char** argv) {
    KITE::Benchmarks::AddSample();
    return KITE::Benchmarks::RunBenchmarks(argc, argv);
}
