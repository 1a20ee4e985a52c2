#include "fixture.h"

// A client sends the signals by which the bus tells that a name has a new owner.
namespace KITE::Integration {

using ForgedSignalTest = SystemTest;

TEST_F(ForgedSignalTest, OnlyTheBusTellsWhoOwnsAName) {
    FakeManager& manager = StartWithFakeManager();
    BusClient forger = Connect(kUntrustedUid);
    for (const char* newOwner : {"", ":1.1"}) {
        sd_bus_message* signal = nullptr;
        ASSERT_GE(sd_bus_message_new_signal(forger.Bus(), &signal, "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "NameOwnerChanged"),
                  0);
        const Linux::MessageHandle handle(signal);
        ASSERT_GE(sd_bus_message_append(signal, "sss", kKelvraName.c_str(), ":1.0", newOwner), 0);
        ASSERT_GE(sd_bus_message_set_destination(signal, manager.Subscriber().c_str()), 0);
        ASSERT_GE(sd_bus_send(forger.Bus(), signal, nullptr), 0);
    }
    ASSERT_GE(sd_bus_flush(forger.Bus()), 0);
    Process& culprit = StartTarget("culprit", {"idle"});
    EXPECT_EQ(0, manager.Report({Anomaly(culprit, "cpu", "kill")}));
    EXPECT_EQ(SIGKILL, culprit.AwaitEnd());
    EXPECT_FALSE(QuotaHost().log.Contains("remove system ability"));
}

}  // namespace KITE::Integration
