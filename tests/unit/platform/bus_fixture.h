#pragma once

#include <functional>
#include <future>
#include <string_view>

#include "integration/bus_client.h"
#include "ipc/ability_registry.h"
#include "ipc/access.h"
#include "ipc/bus.h"
#include "ipc/limits.h"
#include "ipc/remote_proxy.h"
#include "ipc/wire.h"
#include "platform_fixture.h"
#include "private_system/private_bus.h"

namespace KITE::Linux {

inline constexpr char kPath[] = "/kite/test";

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
    static std::string Address() { return Tools::BusAddressIn(Directory()); }

    // With one more rule of whom it serves.
    explicit Daemon(const std::string& rule = "") {
        std::filesystem::create_directories(Directory());
        const std::string configuration = Directory() + "/bus.conf";
        Integration::WriteWholeFile(
            configuration, "<busconfig><listen>" + Address() +
                               "</listen><auth>EXTERNAL</auth>"
                               "<policy context='default'><allow user='*'/><allow own='*'/>"
                               "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>" +
                               rule +
                               "</policy><limit name='max_replies_per_connection'>4096</limit></busconfig>");
        Integration::LogFile log(Directory() + "/log");
        auto daemon = Tools::StartBusDaemon(Directory(), configuration, {}, log);
        EXPECT_TRUE(daemon) << log.Text();
        process_ = std::move(daemon).ValueOr(nullptr);
    }
    ~Daemon() { Kill(); }

    void Kill() {
        process_.reset();
        std::filesystem::remove_all(Directory());
    }
    // Frozen, it delivers and answers nothing.
    void Freeze() const {
        process_->Signal(SIGSTOP);
        EXPECT_TRUE(process_->AwaitState('T'));
    }

  private:
    std::unique_ptr<Process> process_;
};

// Another process as the bus sees it: a connection of its own, used on the test's thread.
class Peer : public Integration::BusClient {
  public:
    using Receiver = std::function<void(sd_bus_message*)>;

    Peer() : BusClient(Daemon::Address(), getuid()) {}

    std::string Name() const {
        const char* name = "";
        EXPECT_GE(sd_bus_get_unique_name(Bus(), &name), 0);
        return name;
    }
    bool Sees(const std::string& name) {
        sd_bus_creds* owner = nullptr;
        const bool isThere = sd_bus_get_name_creds(Bus(), name.c_str(), 0, &owner) >= 0;
        sd_bus_creds_unref(owner);
        return isThere;
    }

    // Send a request without waiting for its reply.
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
    Caller caller;
    bool ownsManager = false;
    std::function<int32_t(MessageParcel&)> onRequest;
    std::promise<bool> dumping;
    std::promise<void> letGo;

  private:
    std::atomic<bool> busy_{false};
};

// This process on a bus of its own, with an object at kPath.
class BusTest : public testing::Test {
  protected:
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
        WithdrawAbilities();
        bus.Stop();
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

    std::optional<Daemon> daemon{std::in_place};
    Peer peer;
    Bus& bus = Bus::Instance();
    std::string self;
    sptr<Recorder> recorder = MakeSptr<Recorder>();
};

}  // namespace KITE::Linux
