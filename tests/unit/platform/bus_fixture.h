#pragma once

#include <functional>
#include <future>

#include "integration/bus_client.h"
#include "ipc/ability_registry.h"
#include "ipc/access.h"
#include "ipc/bus.h"
#include "ipc/limits.h"
#include "ipc/remote_proxy.h"
#include "platform_fixture.h"
#include "private_system/private_bus.h"

namespace KITE::Linux {

inline constexpr char kPath[] = "/kite/test";

// Another process as the bus sees it: a connection of its own, used on the test's thread.
class Peer : public Integration::BusClient {
  public:
    using Receiver = std::function<void(sd_bus_message*)>;

    explicit Peer(const std::string& address) : BusClient(address, getuid()) {}

    std::string Name() const {
        const char* name = "";
        EXPECT_GE(sd_bus_get_unique_name(Bus(), &name), 0);
        return name;
    }
    bool Sees(const std::string& name) { return sd_bus_get_name_creds(Bus(), name.c_str(), 0, nullptr) >= 0; }

    // Sends a request without waiting for its reply.
    void Send(const std::string& to, uint32_t code, Receiver done) {
        Send(to, kTransactMethod, std::move(done), "uay", code, 0);
    }
    void SendDump(const std::string& to, int fd, Receiver done) {
        Send(to, kDumpMethod, std::move(done), "ash", 1, "word", fd);
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
    template <typename... Fields>
    void Send(const std::string& to, const char* member, Receiver done, const char* types, Fields... fields) {
        receivers_.push_back(std::make_unique<Receiver>(std::move(done)));
        const auto onReply = [](sd_bus_message* reply, void* receiver, sd_bus_error*) {
            (*static_cast<Receiver*>(receiver))(reply);
            return 1;
        };
        EXPECT_GE(sd_bus_call_method_async(Bus(), nullptr, to.c_str(), kPath, kAbilityInterface, member,
                                           onReply, receivers_.back().get(), types, fields...),
                  0);
    }

    std::vector<std::unique_ptr<Receiver>> receivers_;
};

// Records what reaches it; a dump lasts until it is let go.
class Recorder : public IPCObjectStub {
  public:
    Recorder() : IPCObjectStub(u"recorder", true) {}

    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                            MessageOption& /*option*/) override {
        EXPECT_FALSE(busy_.exchange(true)) << "two requests at a time";
        order.push_back(static_cast<int>(code));
        caller = {CallerName(), CallerUid()};
        ownsManager = CallerOwnsAbility(KELVRA_MANAGER_SERVICE_ID);
        if (int32_t number = 0; !onRequest && data.ReadInt32(number)) {
            reply.WriteInt32(number + 1);
        }
        const int32_t status = onRequest ? onRequest(reply) : static_cast<int32_t>(code);
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
    Caller caller;
    bool ownsManager = false;
    std::function<int32_t(MessageParcel&)> onRequest;
    std::promise<bool> dumping;
    std::promise<void> letGo;

  private:
    std::atomic<bool> busy_{false};
};

// This process on a bus of its own, with an object at kPath.
class BusTest : public DirectoryTest {
  protected:
    void SetUp() override {
        ASSERT_EQ(bus.Start(address), std::error_code());
        bus.Thread().Run([&] {
            const char* unique = nullptr;
            sd_bus_get_unique_name(bus.Thread().Connection(), &unique);
            self = unique;
        });
        ASSERT_TRUE(bus.Export(kPath, recorder));
    }
    void TearDown() override {
        WithdrawAbilities();
        bus.Stop();
    }

    // A daemon with one more rule of whom it serves.
    std::unique_ptr<Process> StartDaemon(const std::string& rule = "") const {
        Put("bus.conf", "<busconfig><listen>" + address +
                            "</listen><auth>EXTERNAL</auth>"
                            "<policy context='default'><allow user='*'/><allow own='*'/>"
                            "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>" +
                            rule +
                            "</policy><limit name='max_replies_per_connection'>4096</limit></busconfig>");
        Integration::LogFile log(Path("log"));
        auto started = Tools::StartBusDaemon(directory_, Path("bus.conf"), {}, log);
        EXPECT_TRUE(started) << log.Text();
        return std::move(started).ValueOr(nullptr);
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

    const std::string address = Tools::BusAddressIn(directory_);
    std::unique_ptr<Process> daemon = StartDaemon();
    Peer peer{address};
    Bus& bus = Bus::Instance();
    std::string self;
    sptr<Recorder> recorder = MakeSptr<Recorder>();
};

}  // namespace KITE::Linux
