// What the bus and the hosts cost: calls between processes, and hosts that have nothing to do.
#include <cstdio>
#include <exception>

#include "ipc/echo.h"
#include "ipc/rows.h"
#include "ratio_table.h"

int main(int argc, char** argv) {
    using namespace KITE::Benchmarks;
    if (const std::optional<int> status = RunAsEcho(argc, argv)) {
        return *status;
    }
    try {
        JournalStandIn journal;
        AddQuotaExport();
        const Keeper queries = AddQueries(journal);
        AddIdleHosts(journal);
        return RunBenchmarks(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kite_ipc_benchmarks: %s\n", error.what());
        return 1;
    }
}
