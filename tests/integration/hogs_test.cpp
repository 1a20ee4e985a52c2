#include "fixture.h"

// The whole system against processes that use too much of each resource.
namespace KITE::Integration {

using HogsTest = SystemTest;

TEST_F(HogsTest, EachKindOfHogIsKilledAndOthersAreLeftAlone) {
    SetPolicy({Rule("spinner", "cpu", 10, "kill"), Rule("eater", "mem", 100'000, "kill"),
               Rule("writer", "io", 10'000'000, "kill"), Rule("modest", "cpu", 10, "kill")});
    Process& modest = StartTarget("modest", {"idle"});
    Process& stranger = StartTarget("stranger", {"burn"});
    StartWhole();
    // The build directory lies on a disk; the one for temporary files may not, and then counts no bytes.
    const std::string path = KITE_WORK_DIRECTORY "/flood";
    const Linux::UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    std::filesystem::remove(path);
    Launch launch{.program = KITE_MISBEHAVE, .uid = kUntrustedUid, .output = file.Get()};
    EXPECT_EQ(SIGKILL, StartTarget("writer", {"write"}, launch).AwaitEnd());
    EXPECT_EQ(SIGKILL, StartTarget("eater", {"memory", "200"}, launch).AwaitEnd());
    EXPECT_EQ(SIGKILL, StartTarget("spinner", {"burn", "2"}).AwaitEnd());
    EXPECT_FALSE(modest.HasEnded());
    EXPECT_FALSE(stranger.HasEnded());
}

}  // namespace KITE::Integration
