#include <stdexcept>

#include "bus_fixture.h"

namespace KITE::Linux {

using RemoteCall = BusTest;

// The status of a call that is never answered, once it has one.
static std::future<int32_t> CallInVain(const Peer& peer) {
    const auto status = std::make_shared<std::promise<int32_t>>();
    RemoteProxy(peer.Name(), kPath).SendRequestAsync(1, {}, [status](int32_t its, MessageParcel&) {
        status->set_value(its);
    });
    return status->get_future();
}

TEST_F(RemoteCall, ARequestCarriesItsBytesBothWaysAndTellsWhoSentIt) {
    peer.Claim(KELVRA_MANAGER_SERVICE_ID);
    MessageParcel request;
    request.WriteInt32(41);
    // The second time with the uid that was kept.
    for (int i = 0; i < 2; ++i) {
        Integration::Answer answer = peer.Transact(self, kPath, 7, request);
        int32_t number = 0;
        EXPECT_EQ(answer.status, 7);
        EXPECT_TRUE(answer.reply.ReadInt32(number) && number == 42);
        bus.Thread().Run([&] {
            EXPECT_EQ(recorder->caller.name, peer.Name());
            EXPECT_EQ(recorder->caller.uid, getuid());
            EXPECT_TRUE(recorder->ownsManager);
            EXPECT_EQ(CallerUid(), std::nullopt) << "the request is over";
        });
    }
    EXPECT_EQ(Call({self, kPath}), 5);
    bus.Thread().Run([&] { EXPECT_FALSE(recorder->ownsManager) << "the peer owns the name"; });
    EXPECT_EQ(CallerName(), "");
    EXPECT_EQ(CallerUid(), std::nullopt);
    EXPECT_EQ(IPCSkeleton::GetCallingTokenID(), 0U);
}

TEST_F(RemoteCall, ACallFailsByWhatStandsInItsWay) {
    EXPECT_EQ(Call({"kite.ability.SA4711", kPath}), ERR_DEAD_OBJECT);
    EXPECT_EQ(Call({self, "/kite/nowhere"}), ERR_DEAD_OBJECT);
    EXPECT_EQ(Call({self, "no path"}), ERR_REFUSED);

    recorder->onRequest = [&](MessageParcel&) { return Call({self, kPath}); };
    EXPECT_EQ(Call({self, kPath}), ERR_REFUSED) << "the serving thread would wait for itself";

    const std::string large(kMaxParcelSize, 'x');
    MessageParcel data;
    MessageParcel reply;
    MessageOption option;
    data.WriteString(large);
    EXPECT_EQ(RemoteProxy(self, kPath).SendRequest(1, data, reply, option), ERR_TOO_LARGE);
    recorder->onRequest = [&](MessageParcel& answer) { return answer.WriteString(large) ? 0 : 1; };
    MessageParcel small;
    EXPECT_EQ(RemoteProxy(self, kPath).SendRequest(1, small, reply, option), ERR_TOO_LARGE);
    EXPECT_TRUE(reply.Bytes().empty());

    recorder->onRequest = nullptr;
    EXPECT_EQ(Call({self, kPath}), 5) << "the connection did not survive";
    recorder->onRequest = [](MessageParcel&) -> int32_t { throw std::runtime_error("broken"); };
    EXPECT_EQ(Call({self, kPath}), ERR_REFUSED);
}

TEST_F(RemoteCall, WorkRunsInTheOrderInWhichItWasHandedOver) {
    std::promise<void> allPosted;
    std::vector<int> order;
    bus.Thread().Post([&] { allPosted.get_future().wait(); });
    for (int i = 0; i < 9; ++i) {
        bus.Thread().Post([&order, i] { order.push_back(i); });
    }
    allPosted.set_value();
    bus.Thread().Run([&] { EXPECT_TRUE(order.size() == 9 && std::ranges::is_sorted(order)); });
}

TEST_F(RemoteCall, StoppingEndsCallsWithoutAnAnswerAndRefusesWork) {
    std::future<int32_t> outcome = CallInVain(peer);
    bus.StopServing();
    EXPECT_FALSE(bus.Export(kPath, recorder));
    EXPECT_EQ(Call({self, kPath}), ERR_DEAD_OBJECT);
    EXPECT_EQ(outcome.wait_for(0s), std::future_status::timeout) << "calls to others go on";
    bus.Stop();
    EXPECT_EQ(outcome.get(), ERR_DEAD_OBJECT);
    EXPECT_FALSE(bus.Thread().Post([] {}));
    EXPECT_FALSE(bus.Export(kPath, recorder));
    EXPECT_EQ(Call({self, kPath}), ERR_DEAD_OBJECT);
}

TEST_F(RemoteCall, ALostBusIsToldOnceAndEndsThePendingCalls) {
    bus.Stop();
    std::atomic<int> lost{0};
    ASSERT_EQ(bus.Start(address, [&] { ++lost; }), std::error_code());
    std::future<int32_t> outcome = CallInVain(peer);
    daemon.reset();
    EXPECT_TRUE(Eventually([&] { return lost > 0; }));
    EXPECT_EQ(outcome.get(), ERR_DEAD_OBJECT);
    EXPECT_FALSE(bus.Thread().IsConnected());
    EXPECT_EQ(Call({self, kPath}), ERR_DEAD_OBJECT);
    bus.Stop();
    EXPECT_EQ(lost, 1);
}

TEST_F(RemoteCall, ACallWithoutAnAnswerTimesOut) {
    std::future<int32_t> outcome = CallInVain(peer);
    bus.Thread().Run([] {});
    daemon->Signal(SIGSTOP);
    ASSERT_TRUE(daemon->AwaitState('T'));
    const auto begin = Clock::now();
    EXPECT_EQ(Call({self, kPath}), ERR_TIMED_OUT);
    EXPECT_LT(Clock::now() - begin, kCallTimeout + 2s);
    EXPECT_EQ(outcome.get(), ERR_TIMED_OUT);
}

}  // namespace KITE::Linux
