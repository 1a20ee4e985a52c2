#include "proc/process_list.h"
#include "treatment_fixture.h"

namespace KITE::Linux {

using SuppressionTest = TreatmentTest;

TEST_F(SuppressionTest, EveryThreadGetsItsPolicyBackAndANewOneTheMainThreads) {
    const Program& culprit = Begin({"burn", "2"});
    const pid_t pid = culprit.Pid();
    ASSERT_TRUE(Eventually([&] { return culprit.ThreadCount() == 2; }));
    const sched_param none{};
    ASSERT_EQ(sched_setscheduler(ListThreads(pid).back(), SCHED_BATCH, &none), 0);
    ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(pid), 7), 0);
    const std::string before = culprit.Standing();
    ASSERT_EQ(Suppress(), 0);
    for (const ThreadPolicy& thread : ReadThreadPolicies(pid)) {
        EXPECT_TRUE(thread.IsIdle()) << thread.tid;
    }
    ASSERT_EQ(EndSuppression(), 0);
    EXPECT_EQ(culprit.Standing(), before);

    const Program& growing = Begin({"thread"});
    ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(growing.Pid()), 7), 0);
    ASSERT_EQ(Suppress(), 0);
    growing.Signal(SIGUSR1);
    ASSERT_TRUE(Eventually([&] { return growing.ThreadCount() == 2; }));
    ASSERT_EQ(EndSuppression(), 0);
    for (const ThreadPolicy& thread : ReadThreadPolicies(growing.Pid())) {
        EXPECT_FALSE(thread.IsIdle()) << thread.tid;
        EXPECT_EQ(thread.attributes.nice, 7) << thread.tid;
    }
}

TEST_F(SuppressionTest, ChildrenOfAnIdleProcessGetItsPolicyBackAlsoWhenItIsGone) {
    for (const bool endsFirst : {false, true}) {
        const Program& culprit = Begin({"breed"});
        ASSERT_EQ(Suppress(), 0);
        culprit.Signal(SIGUSR1);
        ASSERT_TRUE(Eventually([&] { return !culprit.Children().empty(); }));
        const pid_t child = culprit.Children()[0];
        ASSERT_TRUE(IsIdle(child));
        if (endsFirst) {
            culprit.Signal(SIGKILL);
        } else {
            ASSERT_EQ(EndSuppression(), 0);
        }
        EXPECT_TRUE(Eventually([&] { return !IsIdle(child); }));
        EXPECT_TRUE(Eventually([&] { return !HasRecords(); }));
    }
}

TEST_F(SuppressionTest, TheEndOfOneSuppressionLeavesAnotherOfTheSameSession) {
    Treatments& host = StartHost();
    const Program idleBefore({"idle-before", "burn"}, false);
    const sched_param none{};
    ASSERT_EQ(sched_setscheduler(idleBefore.Pid(), SCHED_IDLE, &none), 0);
    ASSERT_TRUE(idleBefore.Runs());
    const auto suppress = [&](const Program& program) {
        ASSERT_TRUE(Report(program));
        ASSERT_FALSE(host.Suppress(program.Pid(), kName));
    };
    const Program first({kName, "burn"}, false);
    suppress(first);
    const Program second({kName, "burn"}, false);  // is younger than the suppression, as a child would be
    suppress(second);
    first.Signal(SIGKILL);
    ASSERT_TRUE(Eventually([&] { return Events().back() == "RELEASE 0"; }));
    EXPECT_TRUE(IsIdle(second.Pid()));
    EXPECT_TRUE(IsIdle(idleBefore.Pid())) << "by its own choice";
    ASSERT_FALSE(host.EndSuppression(second.Pid(), kName));
    EXPECT_FALSE(IsIdle(second.Pid()));
}

}  // namespace KITE::Linux
