#include "bus_fixture.h"

namespace KITE::Linux {

using RequestQueues = BusTest;

TEST_F(RequestQueues, RequestsWaitForADumpInTheirOrderUpToALimitAndTheServingThreadDoesNot) {
    auto leaving = std::make_unique<Peer>(address);
    bool isKnown = false;
    leaving->Send(self, 0, [&](sd_bus_message*) { isKnown = true; });
    ASSERT_TRUE(leaving->WaitUntil([&] { return isKnown; }));
    Integration::Pipe pipe;
    int32_t dumpStatus = 0;
    peer.SendDump(self, pipe.writeEnd.Get(),
                  [&](sd_bus_message* reply) { sd_bus_message_read(reply, "i", &dumpStatus); });
    std::future<bool> sawCaller = recorder->dumping.get_future();
    ASSERT_TRUE(peer.WaitUntil([&] { return sawCaller.wait_for(0s) == std::future_status::ready; }));
    EXPECT_TRUE(sawCaller.get());

    const std::string leavingName = leaving->Name();
    leaving->SendDump(self, pipe.writeEnd.Get(), [](sd_bus_message*) {});
    leaving.reset();
    ASSERT_TRUE(peer.WaitUntil([&] { return !peer.Sees(leavingName); }));

    // The dump is one of those that the limit counts.
    const int total = static_cast<int>(kMaxRequests) + 9;
    int answered = 0;
    int refused = 0;
    for (int i = 0; i < total; ++i) {
        peer.Send(self, static_cast<uint32_t>(i), [&](sd_bus_message* reply) {
            const sd_bus_error* error = sd_bus_message_get_error(reply);
            ++(error == nullptr ? answered : refused);
            EXPECT_TRUE(error == nullptr || std::string_view(error->name) == SD_BUS_ERROR_LIMITS_EXCEEDED);
        });
    }
    ASSERT_TRUE(peer.WaitUntil([&] { return refused == 10; }));
    EXPECT_EQ(answered, 0);
    EXPECT_TRUE(bus.Thread().Run([] {}));

    recorder->letGo.set_value();
    ASSERT_TRUE(peer.WaitUntil([&] { return answered + refused == total; }));
    EXPECT_EQ(refused, 10);
    EXPECT_EQ(dumpStatus, 11);
    EXPECT_EQ(recorder->dumps, 1) << "a dump was made for a client that had left";
    EXPECT_EQ(pipe.Text(), "dump");
    bus.Thread().Run([&] { EXPECT_TRUE(std::ranges::is_sorted(recorder->order)); });
}

}  // namespace KITE::Linux
