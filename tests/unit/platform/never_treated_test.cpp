#include "treatment_fixture.h"

namespace KITE::Linux {

using NeverTreatedTest = TreatmentTest;

TEST_F(NeverTreatedTest, WhatTheSystemStandsOnIsNeverTreated) {
    Treatments& host = StartHost();
    constexpr pid_t kKernelThreadDaemon = 2;
    EXPECT_EQ(host.Kill(1, "init", ""), ErrorOf(EPERM));
    EXPECT_EQ(host.Suppress(getpid(), "self"), ErrorOf(EPERM));
    if (const Result<ProcessStat> stat = ReadProcessStat(kKernelThreadDaemon);
        stat && stat->IsKernelThread()) {
        EXPECT_EQ(host.Freeze(kKernelThreadDaemon, "kthreadd", std::nullopt), ErrorOf(EPERM));
    }
    // The journal is root's program of that name, and no other's.
    const std::string journal = Path("systemd-journald");
    std::filesystem::copy_file(KITE_TARGET, journal);
    for (const uid_t owner : {0U, 1U}) {
        ASSERT_EQ(chown(journal.c_str(), owner, owner), 0);
        const Process process({.program = journal, .arguments = {kName, "burn"}});
        ASSERT_TRUE(Report(process));
        EXPECT_EQ(host.Suppress(process.Pid(), kName), owner == 0 ? ErrorOf(EPERM) : std::error_code());
    }
}

}  // namespace KITE::Linux
