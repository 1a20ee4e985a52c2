#include "runtime/task_runtime.h"

#include <future>
#include <stdexcept>

#include "platform_fixture.h"

namespace KITE::Linux {

TEST(TaskRuntimeTest, StoppingRunsWhatIsSubmittedAndDropsWhatIsDelayed) {
    std::atomic<int> ran{0};
    const auto held = std::make_shared<int>(0);
    TaskRuntime runtime;
    std::promise<void> delayedRan;
    runtime.Submit([&] { delayedRan.set_value(); }, {"delayed", 20ms});
    const auto start = Clock::now();
    ASSERT_EQ(delayedRan.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_GE(Clock::now() - start, 19ms);
    for (int i = 0; i < 10000; ++i) {
        runtime.Submit([&ran, held] { ran += 1000000; }, {"never", 1h});
    }
    runtime.Submit([] {}, {"for ever", std::chrono::microseconds::max()});
    runtime.Submit([] { throw std::runtime_error("on purpose"); }, {"thrower"});
    runtime.Submit([] { throw 1; }, {"thrower"});
    for (int i = 0; i < 1000; ++i) {
        runtime.Submit([&ran, held] { ++ran; }, {"now"});
    }
    runtime.Stop();
    EXPECT_EQ(ran, 1000);
    EXPECT_EQ(held.use_count(), 1);
    runtime.Submit([&ran] { ++ran; }, {"late"});
    runtime.Stop();
    EXPECT_EQ(ran, 1000);
}

TEST(TaskRuntimeTest, TasksRunBesideEachOther) {
    TaskRuntime runtime;
    std::promise<void> first;
    std::promise<bool> second;
    runtime.Submit([&] { second.set_value(first.get_future().wait_for(10s) == std::future_status::ready); },
                   {});
    runtime.Submit([&] { first.set_value(); }, {});
    EXPECT_TRUE(second.get_future().get());
}

}  // namespace KITE::Linux
