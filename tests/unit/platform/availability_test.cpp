#include <mutex>

#include "bus_fixture.h"
#include "system_ability.h"
#include "treatments/never_treated.h"

namespace KITE::Linux {

using Availabilities = BusTest;

TEST_F(Availabilities, AListenerHearsEachChangeOnceAndANewOwnerAsRemovalAndAddition) {
    constexpr int32_t kId = 77;
    peer.Claim(kId, SD_BUS_NAME_ALLOW_REPLACEMENT);
    std::mutex mutex;
    std::string heard;
    ASSERT_TRUE(bus.Abilities().Listen(kId, [&](bool available) {
        const std::lock_guard lock(mutex);
        heard += available ? '+' : '-';
    }));
    const auto hasHeard = [&](std::string_view expected) {
        return peer.WaitUntil([&] {
            const std::lock_guard lock(mutex);
            return heard == expected;
        });
    };
    EXPECT_TRUE(hasHeard("+")) << heard;
    Peer second(address);
    second.Claim(kId, SD_BUS_NAME_REPLACE_EXISTING);
    EXPECT_TRUE(hasHeard("+-+")) << heard;
    EXPECT_EQ(bus.Abilities().OwnerOf(kId), second.Name());
    second.Release(kId);
    EXPECT_TRUE(hasHeard("+-+-")) << heard;
    EXPECT_EQ(bus.Abilities().OwnerOf(kId), "");
    bus.Abilities().StopCallbacks();
}

TEST_F(Availabilities, AnAbilityIsPublishedAgainButNotUnderANameOfAnother) {
    struct Publisher : SystemAbility {
        using SystemAbility::Publish;
        using SystemAbility::SystemAbility;
    };
    Publisher mine(78, false);
    Publisher taken(79, false);
    peer.Claim(79);
    EXPECT_TRUE(mine.Publish(recorder.GetRefPtr()));
    EXPECT_TRUE(mine.Publish(recorder.GetRefPtr()));
    EXPECT_FALSE(mine.Publish(nullptr));
    EXPECT_FALSE(taken.Publish(recorder.GetRefPtr()));
    const auto registry = SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    EXPECT_EQ(registry->GetSystemAbility(78), sptr<IRemoteObject>(recorder.GetRefPtr()));
    EXPECT_NE(registry->GetSystemAbility(79), nullptr);
    EXPECT_EQ(registry->GetSystemAbility(80), nullptr);
    EXPECT_TRUE(peer.Sees(AbilityBusName(78)));
    WithdrawAbilities();
    EXPECT_TRUE(peer.WaitUntil([&] { return !peer.Sees(AbilityBusName(78)); }));
    EXPECT_EQ(registry->GetSystemAbility(78), nullptr);
}

TEST_F(Availabilities, TheBusAndTheServicesProcessesAreProtected) {
    using None = std::vector<pid_t>;
    peer.Claim(kQuotaServiceId);
    EXPECT_TRUE(peer.WaitUntil([&] { return bus.Abilities().ProtectedPids().value_or(None{}).size() == 2; }));
    EXPECT_EQ(bus.Abilities().ProtectedPids().value_or(None{1}).back(), getpid());
    peer.Release(kQuotaServiceId);
    EXPECT_TRUE(peer.WaitUntil([&] { return bus.Abilities().ProtectedPids().value_or(None{}).size() == 1; }));
}

TEST_F(Availabilities, NothingIsTreatedOfABusThatDoesNotSayWhichProcessItIs) {
    bus.Stop();
    daemon.reset();
    std::filesystem::remove(Path("log"));
    daemon = StartDaemon("<deny send_destination='" + std::string(kDaemonName) +
                         "' send_interface='org.freedesktop.DBus' "
                         "send_member='GetConnectionUnixProcessID'/>");
    SetUp();
    EXPECT_EQ(Call({self, kPath}), 5) << "the daemon has answered what was asked before";
    EXPECT_EQ(bus.Abilities().ProtectedPids(), std::nullopt);
    EXPECT_TRUE(WhyNeverTreated(getppid()));
}

}  // namespace KITE::Linux
