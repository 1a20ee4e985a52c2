#include <array>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string_view>

#include "integration/bus_client.h"
#include "ipc/ability_registry.h"
#include "ipc/access.h"
#include "ipc/availability.h"
#include "ipc/bus.h"
#include "ipc/limits.h"
#include "ipc/remote_proxy.h"
#include "ipc/wire.h"
#include "platform_fixture.h"
#include "system_ability.h"
#include "treatments/never_treated.h"

namespace KITE::Linux {
namespace {

constexpr char kPath[] = "/kite/test";

// A bus daemon in a directory of its own, at the same address for the process's life.
class Daemon {
  public:
    static const std::string& Directory() {
        static const std::string directory = [] {
            std::string name = "/tmp/kite-ipc-test-XXXXXX";
            return std::string(mkdtemp(name.data()));
        }();
        return directory;
    }
    static std::string Address() { return "unix:path=" + Directory() + "/bus"; }

    // With one more rule of whom it serves.
    explicit Daemon(const std::string& rule = "") {
        const std::string config = Directory() + "/bus.conf";
        Integration::WriteWholeFile(
            config, "<busconfig><listen>" + Address() +
                        "</listen><auth>EXTERNAL</auth>"
                        "<policy context='default'><allow user='*'/><allow own='*'/>"
                        "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>" +
                        rule + "</policy><limit name='max_replies_per_connection'>4096</limit></busconfig>");
        Integration::LogFile output(Directory() + "/output");
        process_.emplace(Integration::Launch{
            .program = "/usr/bin/dbus-daemon",
            .arguments = {"dbus-daemon", "--nofork", "--print-address", "--config-file=" + config},
            .output = output.Fd()});
        EXPECT_TRUE(output.Await("unix:path=")) << output.Text();
    }
    ~Daemon() { Kill(); }

    void Kill() {
        process_.reset();
        std::filesystem::remove(Directory() + "/bus");
    }
    // Frozen, it delivers and answers nothing.
    void Freeze() const {
        process_->Signal(SIGSTOP);
        EXPECT_TRUE(process_->AwaitState('T'));
    }

  private:
    std::optional<Process> process_;
};

// Another process as the bus sees it: a connection of its own, used on the test's thread.
class Peer : public Integration::BusClient {
  public:
    Peer() : BusClient(Daemon::Address(), getuid()) {}

    std::string Name() const {
        const char* name = "";
        EXPECT_GE(sd_bus_get_unique_name(Bus(), &name), 0);
        return name;
    }
    void Claim(int32_t id, uint64_t flags = 0) {
        EXPECT_GE(sd_bus_request_name(Bus(), AbilityBusName(id).c_str(), flags), 0);
    }
    void Release(int32_t id) { sd_bus_release_name(Bus(), AbilityBusName(id).c_str()); }

    // Sends a request without waiting for its reply.
    void Send(const std::string& to, uint32_t code, std::function<void(sd_bus_message*)> done) {
        const MessageHandle call = NewCall(to, "Transact");
        sd_bus_message_append(call.get(), "uay", code, 0);
        SendCall(call.get(), std::move(done));
    }
    void SendDump(const std::string& to, int fd, std::function<void(sd_bus_message*)> done) {
        const MessageHandle call = NewCall(to, "Dump");
        sd_bus_message_append(call.get(), "ash", 1, "word", fd);
        SendCall(call.get(), std::move(done));
    }
    bool Sees(const std::string& name) {
        sd_bus_creds* owner = nullptr;
        const bool isThere = sd_bus_get_name_creds(Bus(), name.c_str(), 0, &owner) >= 0;
        sd_bus_creds_unref(owner);
        return isThere;
    }
    // Processes replies until the condition holds.
    bool WaitUntil(const std::function<bool()>& condition) {
        return Eventually([&] {
            while (sd_bus_process(Bus(), nullptr) > 0) {
            }
            return condition();
        });
    }

  private:
    MessageHandle NewCall(const std::string& to, const char* member) {
        sd_bus_message* call = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(Bus(), &call, to.c_str(), kPath, kAbilityInterface, member),
                  0);
        return MessageHandle(call);
    }
    void SendCall(sd_bus_message* call, std::function<void(sd_bus_message*)> done) {
        receivers_.push_back(std::make_unique<std::function<void(sd_bus_message*)>>(std::move(done)));
        const auto onReply = [](sd_bus_message* reply, void* receiver, sd_bus_error*) {
            (*static_cast<std::function<void(sd_bus_message*)>*>(receiver))(reply);
            return 1;
        };
        EXPECT_GE(sd_bus_call_async(Bus(), nullptr, call, onReply, receivers_.back().get(), 0), 0);
    }

    std::vector<std::unique_ptr<std::function<void(sd_bus_message*)>>> receivers_;
};

// Records what reaches it; a dump lasts until it is let go.
class Recorder : public IPCObjectStub {
  public:
    Recorder() : IPCObjectStub(u"recorder", true) {}

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                            MessageOption& /*option*/) override {
        EXPECT_FALSE(busy_.exchange(true)) << "two requests at a time";
        order.push_back(static_cast<int>(code));
        caller = CallerName();
        uid = CallerUid();
        ownsManager = CallerOwnsAbility(KELVRA_MANAGER_SERVICE_ID);
        int32_t status = static_cast<int32_t>(code);
        if (onRequest) {
            status = onRequest(reply);
        } else {
            int32_t number = 0;
            data.ReadInt32(number);
            reply.WriteInt32(number + 1);
        }
        busy_ = false;
        return status;
    }
    int32_t Dump(int fd, const std::vector<std::u16string>& args) override {
        EXPECT_FALSE(busy_.exchange(true)) << "two requests at a time";
        ++dumps;
        dumping.set_value(CallerUid() == getuid());
        letGo.get_future().wait_for(kPatience);
        busy_ = false;
        return args.size() == 1 && write(fd, "dump", 4) == 4 ? 11 : -1;
    }

    std::atomic<int> dumps{0};
    std::vector<int> order;
    std::string caller;
    std::optional<uid_t> uid;
    bool ownsManager = false;
    std::function<int32_t(MessageParcel&)> onRequest;
    std::promise<bool> dumping;
    std::promise<void> letGo;

  private:
    std::atomic<bool> busy_{false};
};

class Ipc : public testing::Test {
  protected:
    static void SetUpTestSuite() {}
    static void TearDownTestSuite() { std::filesystem::remove_all(Daemon::Directory()); }

    void SetUp() override {
        ASSERT_EQ(bus.Start(Daemon::Address()), std::error_code());
        bus.Thread().Run([&] {
            const char* unique = nullptr;
            sd_bus_get_unique_name(bus.Thread().Connection(), &unique);
            self = unique;
        });
        ASSERT_TRUE(bus.Export(kPath, recorder));
    }
    void TearDown() override {
        bus.Stop();
        ForgetPublishedObjects();
    }

    // The status of a call that asks for 1 more than 1; nothing else may be answered.
    int32_t Call(RemoteProxy proxy) {
        MessageParcel data;
        MessageParcel reply;
        MessageOption option;
        int32_t number = 2;
        data.WriteInt32(1);
        const int32_t status = proxy.SendRequest(5, data, reply, option);
        EXPECT_TRUE(status != 5 || reply.ReadInt32(number));
        EXPECT_EQ(number, 2);
        return status;
    }

    // The status of a call that nobody answers, once it has one.
    std::future<int32_t> CallInVain() {
        const auto status = std::make_shared<std::promise<int32_t>>();
        RemoteProxy(peer.Name(), kPath).SendRequestAsync(1, {}, [status](int32_t its, MessageParcel&) {
            status->set_value(its);
        });
        return status->get_future();
    }

    std::optional<Daemon> daemon{std::in_place};
    Peer peer;
    Bus& bus = Bus::Instance();
    std::string self;
    sptr<Recorder> recorder = MakeSptr<Recorder>();
};

TEST_F(Ipc, ARequestCarriesItsBytesBothWaysAndTellsWhoSentIt) {
    peer.Claim(KELVRA_MANAGER_SERVICE_ID);
    MessageParcel request;
    request.WriteInt32(41);
    Integration::Answer answer = peer.Transact(self, kPath, 7, request);
    int32_t number = 0;
    EXPECT_EQ(answer.status, 7);
    EXPECT_TRUE(answer.reply.ReadInt32(number) && number == 42);
    bus.Thread().Run([&] {
        EXPECT_EQ(recorder->caller, peer.Name());
        EXPECT_EQ(recorder->uid, getuid());
        EXPECT_TRUE(recorder->ownsManager);
    });
    EXPECT_EQ(CallerName(), "");
    EXPECT_EQ(CallerUid(), std::nullopt);
    EXPECT_EQ(IPCSkeleton::GetCallingTokenID(), 0U);
}

TEST_F(Ipc, RequestsWaitForADumpInTheirOrderUpToALimitAndTheServingThreadDoesNot) {
    auto leaving = std::make_unique<Peer>();
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

TEST_F(Ipc, ACallFailsByWhatStandsInItsWay) {
    EXPECT_EQ(Call({self, kPath}), 5);
    EXPECT_EQ(Call({"kite.ability.SA4711", kPath}), ERR_DEAD_OBJECT);
    EXPECT_EQ(Call({self, "/kite/nowhere"}), ERR_DEAD_OBJECT);
    EXPECT_EQ(Call({self, "no path"}), ERR_REFUSED);

    recorder->onRequest = [&](MessageParcel&) { return Call({self, kPath}); };
    EXPECT_EQ(Call({self, kPath}), ERR_REFUSED) << "the serving thread would wait for itself";
    recorder->onRequest = [](MessageParcel&) -> int32_t { throw std::runtime_error("broken"); };
    EXPECT_EQ(Call({self, kPath}), ERR_REFUSED);
}

TEST_F(Ipc, WhatTheBusDoesNotCarryIsRefusedBeforeItIsSent) {
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
}

TEST_F(Ipc, AListenerHearsEachChangeOnceAndANewOwnerAsRemovalAndAddition) {
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
    Peer second;
    second.Claim(kId, SD_BUS_NAME_REPLACE_EXISTING);
    EXPECT_TRUE(hasHeard("+-+")) << heard;
    EXPECT_EQ(bus.Abilities().OwnerOf(kId), second.Name());
    second.Release(kId);
    EXPECT_TRUE(hasHeard("+-+-")) << heard;
    EXPECT_EQ(bus.Abilities().OwnerOf(kId), "");
    bus.Abilities().StopCallbacks();
}

TEST_F(Ipc, AnAbilityIsPublishedAgainButNotUnderANameOfAnother) {
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
}

TEST_F(Ipc, TheBusAndTheServicesProcessesAreProtected) {
    using None = std::vector<pid_t>;
    peer.Claim(kQuotaServiceId);
    EXPECT_TRUE(peer.WaitUntil([] { return BusProtectedPids().value_or(None{}).size() == 2; }));
    EXPECT_EQ(BusProtectedPids().value_or(None{1}).back(), getpid());
    peer.Release(kQuotaServiceId);
    EXPECT_TRUE(peer.WaitUntil([] { return BusProtectedPids().value_or(None{}).size() == 1; }));
}

TEST_F(Ipc, NothingIsTreatedOfABusThatDoesNotSayWhichProcessItIs) {
    bus.Stop();
    daemon.reset();
    daemon.emplace("<deny send_destination='" + std::string(kDaemonName) +
                   "' send_interface='org.freedesktop.DBus' "
                   "send_member='GetConnectionUnixProcessID'/>");
    SetUp();
    EXPECT_EQ(Call({self, kPath}), 5) << "the daemon has answered what was asked before";
    EXPECT_EQ(BusProtectedPids(), std::nullopt);
    EXPECT_NE(WhyNeverTreated(getppid()), "");
}

TEST_F(Ipc, StoppingEndsCallsWithoutAnAnswerAndRefusesWork) {
    std::future<int32_t> outcome = CallInVain();
    bus.Stop();
    EXPECT_EQ(outcome.get(), ERR_DEAD_OBJECT);
    EXPECT_FALSE(bus.Thread().Post([] {}));
    EXPECT_FALSE(bus.Export(kPath, recorder));
    EXPECT_EQ(Call({self, kPath}), ERR_DEAD_OBJECT);
}

TEST_F(Ipc, ALostBusIsToldOnceAndEndsThePendingCalls) {
    bus.Stop();
    std::atomic<int> lost{0};
    ASSERT_EQ(bus.Start(Daemon::Address(), [&] { ++lost; }), std::error_code());
    std::future<int32_t> outcome = CallInVain();
    daemon->Kill();
    EXPECT_TRUE(Eventually([&] { return lost > 0; }));
    EXPECT_EQ(outcome.get(), ERR_DEAD_OBJECT);
    EXPECT_FALSE(bus.Thread().IsConnected());
    EXPECT_EQ(Call({self, kPath}), ERR_DEAD_OBJECT);
    bus.Stop();
    EXPECT_EQ(lost, 1);
}

TEST_F(Ipc, ACallWithoutAnAnswerTimesOut) {
    std::future<int32_t> outcome = CallInVain();
    bus.Thread().Run([] {});
    daemon->Freeze();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Call({self, kPath}), ERR_TIMED_OUT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kCallTimeout + std::chrono::seconds(2));
    EXPECT_EQ(outcome.get(), ERR_TIMED_OUT);
    daemon->Kill();
}

}  // namespace
}  // namespace KITE::Linux
