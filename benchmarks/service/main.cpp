// The service's own work: reading counters, deciding on reports, loading and exporting the policy.
#include "fake_platform.h"
#include "ratio_table.h"
#include "rows.h"

int main(int argc, char** argv) {
    using namespace KITE::Benchmarks;
    KITE::Log::minimumLevel = KITE::Log::Level::kInfo;
    KITE::Fake::Platform::Get().isTraced = false;
    if (const int status = RunAsMemoryProbe(argc, argv); status >= 0) {
        return status;
    }
    AddWriteBytes();
    AddReports();
    AddPolicy();
    return RunBenchmarks(argc, argv);
}
