#include "ipc/bus.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "ipc/availability.h"
#include "ipc/object_server.h"
#include "ipc/outcome.h"
#include "ipc/wire.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"
#include "runtime/settings.h"

namespace KITE::Linux {

namespace {

constexpr uint64_t kCallTimeoutMicroseconds = std::chrono::microseconds(kCallTimeout).count();

// Flag and answers of the daemon's RequestName.
constexpr uint32_t kDoNotQueue = 4;
constexpr uint32_t kPrimaryOwner = 1;
constexpr uint32_t kAlreadyOwner = 4;

thread_local const Bus* servedHere = nullptr;

bool Fail(std::string& error, const char* what, int result) {
    error = std::string(what) + ": " + std::generic_category().message(-result);
    return false;
}

}  // namespace

// Tells the caller the outcome exactly once: the connection drops a call without an answer when it is closed.
class Bus::PendingCall {
  public:
    explicit PendingCall(Reply done) : done_(std::move(done)) {}
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;
    ~PendingCall() { Finish(ERR_DEAD_OBJECT, nullptr); }

    void Finish(int32_t status, sd_bus_message* reply) noexcept {
        if (const Reply done = std::exchange(done_, nullptr)) {
            RunGuarded("the receiver of a reply", [&] { done(status, reply); });
        }
    }

    static int OnReply(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
        auto& call = *static_cast<PendingCall*>(self);
        const bool isError = sd_bus_message_is_method_error(message, nullptr) > 0;
        call.Finish(isError ? call.StatusOfError(message) : ERR_NONE, isError ? nullptr : message);
        return 1;
    }

    static void OnDropped(void* self) {
        const std::unique_ptr<PendingCall> dropped(static_cast<PendingCall*>(self));
    }

  private:
    int32_t StatusOfError(sd_bus_message* reply) const;

    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    Reply done_;
};

int32_t Bus::PendingCall::StatusOfError(sd_bus_message* reply) const {
    static constexpr std::array<std::string_view, 6> kGone{
        SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_UNKNOWN_OBJECT,
        SD_BUS_ERROR_UNKNOWN_METHOD,  SD_BUS_ERROR_UNKNOWN_INTERFACE, SD_BUS_ERROR_DISCONNECTED};
    const std::string_view name = sd_bus_message_get_error(reply)->name;
    for (const std::string_view gone : kGone) {
        if (name == gone) {
            return ERR_DEAD_OBJECT;
        }
    }
    if (name == SD_BUS_ERROR_TIMEOUT) {
        return ERR_TIMED_OUT;
    }
    // The daemon says so when the callee leaves, the library when the time is over or the bus has gone; only
    // the clock tells these apart.
    if (name == SD_BUS_ERROR_NO_REPLY) {
        const bool isLate = std::chrono::steady_clock::now() - begin_ >= kCallTimeout;
        return isLate ? ERR_TIMED_OUT : ERR_DEAD_OBJECT;
    }
    PLATFORM_LOGE("the bus refuses a call: %{public}s", std::string(name).c_str());
    return ERR_REFUSED;
}

Bus& Bus::Instance() {
    static Bus bus;
    return bus;
}

Bus::Bus() : names_(std::make_unique<AbilityNames>(*this)), objects_(std::make_unique<ObjectServer>(*this)) {}

Bus::~Bus() {
    Stop();
}

bool Bus::Start(std::string& error) {
    if (!Connect(error) || !PrepareLoop(error)) {
        Close();
        return false;
    }
    claimsRefused_ = false;
    objects_->Begin();
    connected_ = true;
    {
        const std::lock_guard lock(mutex_);
        accepting_ = true;
    }
    thread_ = std::thread([this] { Serve(); });
    names_->Begin();
    return true;
}

bool Bus::Connect(std::string& error) {
    const std::string& address = GetSettings().busAddress;
    sd_bus* connection = nullptr;
    int result = address.empty() ? sd_bus_open_system(&connection) : sd_bus_new(&connection);
    connection_.reset(connection);
    if (result >= 0 && !address.empty()) {
        result = sd_bus_set_address(connection, address.c_str());
        result = result < 0 ? result : sd_bus_set_bus_client(connection, 1);
        result = result < 0 ? result : sd_bus_start(connection);
    }
    // The unique name is there once the bus has accepted us; this waits for that.
    const char* uniqueName = nullptr;
    result = result < 0 ? result : sd_bus_get_unique_name(connection, &uniqueName);
    return result >= 0 || Fail(error, "cannot connect to the bus", result);
}

bool Bus::PrepareLoop(std::string& error) {
    sd_event* event = nullptr;
    int result = sd_event_new(&event);
    event_.reset(event);
    // Within this loop, so that a serving thread that is stuck trips the supervisor's watchdog.
    result = result < 0 ? result : sd_event_set_watchdog(event, 1);
    result = result < 0 ? result : sd_bus_attach_event(connection_.get(), event, SD_EVENT_PRIORITY_NORMAL);
    sd_bus_slot* slot = nullptr;
    const auto onLost = [](sd_bus_message*, void* self, sd_bus_error*) {
        static_cast<Bus*>(self)->OnLost();
        return 0;
    };
    result = result < 0
                 ? result
                 : sd_bus_match_signal(connection_.get(), &slot, nullptr, "/org/freedesktop/DBus/Local",
                                       "org.freedesktop.DBus.Local", "Disconnected", onLost, this);
    lostMatch_.reset(slot);
    wakeFd_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    sd_event_source* source = nullptr;
    const auto onWake = [](sd_event_source*, int, uint32_t, void* self) {
        static_cast<Bus*>(self)->RunPosted();
        return 0;
    };
    result = result < 0 ? result : sd_event_add_io(event, &source, wakeFd_.Get(), EPOLLIN, onWake, this);
    wakeSource_.reset(source);
    return result >= 0 || Fail(error, "cannot prepare the serving loop", result);
}

void Bus::Serve() {
    servedHere = this;
    const int result = sd_event_loop(event_.get());
    if (result < 0) {
        PLATFORM_LOGE("the serving loop failed: %{public}s",
                      std::generic_category().message(-result).c_str());
        OnLost();
    }
    {
        const std::lock_guard lock(mutex_);
        accepting_ = false;
    }
    RunPosted();
    Close();
    servedHere = nullptr;
}

// Pending calls end while the connection goes; what their receivers do then must not find it any more.
void Bus::Close() {
    connected_ = false;
    objects_->Clear();
    names_->Clear();
    lostMatch_.reset();
    wakeSource_.reset();
    const BusHandle closing = std::move(connection_);
    const EventHandle ending = std::move(event_);
}

void Bus::OnLost() {
    if (!connected_.exchange(false)) {
        return;
    }
    PLATFORM_LOGE("the bus has gone");
    if (lostHandler_) {
        RunGuarded("the handler of a lost bus", lostHandler_);
    }
}

void Bus::StopServing() {
    Run([this] {
        ReleaseNames();
        objects_->Withdraw();
    });
    objects_->StopDumps();
}

void Bus::Stop() {
    if (!thread_.joinable()) {
        return;
    }
    StopServing();
    names_->StopCallbacks();
    {
        const std::lock_guard lock(mutex_);
        accepting_ = false;
        eventfd_write(wakeFd_.Get(), 1);
    }
    thread_.join();
}

bool Bus::Post(std::function<void()> work) {
    const std::lock_guard lock(mutex_);
    if (!accepting_) {
        return false;
    }
    posted_.push_back(std::move(work));
    if (posted_.size() == 1) {
        eventfd_write(wakeFd_.Get(), 1);
    }
    return true;
}

bool Bus::Run(const std::function<void()>& work) {
    if (OnServingThread()) {
        work();
        return true;
    }
    const auto outcome = std::make_shared<Outcome<bool>>();
    const bool isPosted = Post([&work, outcome] {
        RunGuarded("work on the serving thread", work);
        outcome->Set(true);
    });
    return isPosted && outcome->Wait();
}

bool Bus::OnServingThread() const {
    return servedHere == this;
}

void Bus::RunPosted() {
    std::deque<std::function<void()>> posted;
    bool isStopping = false;
    {
        const std::lock_guard lock(mutex_);
        eventfd_t ignored = 0;
        eventfd_read(wakeFd_.Get(), &ignored);
        posted.swap(posted_);
        isStopping = !accepting_;
    }
    for (const std::function<void()>& work : posted) {
        RunGuarded("work on the serving thread", work);
    }
    if (isStopping) {
        sd_event_exit(event_.get(), 0);
    }
}

bool Bus::Export(const std::string& path, sptr<IPCObjectStub> object) {
    bool isExported = false;
    return Run([&] { isExported = objects_->Export(path, object); }) && isExported;
}

void Bus::Unexport(const std::string& path) {
    Run([&] { objects_->Unexport(path); });
}

bool Bus::ClaimName(const std::string& name, std::string& error) {
    struct Answer {
        int32_t status;
        uint32_t code;
    };
    const auto outcome = std::make_shared<Outcome<Answer>>();
    const bool isPosted = !OnServingThread() && Post([this, name, outcome] {
        if (claimsRefused_) {
            outcome->Set({ERR_DEAD_OBJECT, 0});
            return;
        }
        claimedNames_.insert(name);
        MessageHandle call = NewDaemonCall("RequestName", name);
        if (call) {
            sd_bus_message_append(call.get(), "u", kDoNotQueue);
        }
        Call(std::move(call), [outcome](int32_t status, sd_bus_message* reply) {
            uint32_t code = 0;
            if (status == ERR_NONE) {
                sd_bus_message_read(reply, "u", &code);
            }
            outcome->Set({status, code});
        });
    });
    const Answer answer =
        isPosted ? outcome->WaitFor(kCallTimeout).value_or(Answer{ERR_TIMED_OUT, 0}) : Answer{ERR_REFUSED, 0};
    if (answer.code == kPrimaryOwner || answer.code == kAlreadyOwner) {
        return true;
    }
    error = answer.status == ERR_NONE ? name + " belongs to another process"
                                      : name + " was not given, status " + std::to_string(answer.status);
    return false;
}

void Bus::ReleaseNames() {
    claimsRefused_ = true;
    for (const std::string& name : std::exchange(claimedNames_, {})) {
        Call(NewDaemonCall("ReleaseName", name), [](int32_t, sd_bus_message*) {});
    }
}

MessageHandle Bus::NewCall(const std::string& destination, const std::string& path,
                           const std::string& interface, const std::string& member) const {
    sd_bus_message* message = nullptr;
    if (connection_) {
        sd_bus_message_new_method_call(connection_.get(), &message, destination.c_str(), path.c_str(),
                                       interface.c_str(), member.c_str());
    }
    return MessageHandle(message);
}

MessageHandle Bus::NewDaemonCall(const std::string& member, const std::string& name) const {
    MessageHandle call = NewCall(kDaemonName, kDaemonPath, kDaemonName, member);
    if (call && sd_bus_message_append(call.get(), "s", name.c_str()) < 0) {
        call.reset();
    }
    return call;
}

void Bus::Call(MessageHandle message, Reply done) {
    auto call = std::make_unique<PendingCall>(std::move(done));
    if (!connection_ || sd_bus_is_open(connection_.get()) <= 0) {
        return;
    }
    if (!message) {
        PLATFORM_LOGE("a call has a name, a path or a field that the bus does not carry");
        call->Finish(ERR_REFUSED, nullptr);
        return;
    }
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_async(connection_.get(), &slot, message.get(), &PendingCall::OnReply, call.get(),
                          kCallTimeoutMicroseconds) < 0) {
        return;
    }
    const SlotHandle handle(slot);
    sd_bus_slot_set_destroy_callback(slot, &PendingCall::OnDropped);
    static_cast<void>(call.release());  // the slot drops it
    sd_bus_slot_set_floating(slot, 1);
}

std::optional<std::vector<pid_t>> BusProtectedPids() {
    return Bus::Instance().Names().ProtectedPids();
}

}  // namespace KITE::Linux
