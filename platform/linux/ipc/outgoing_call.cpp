#include "ipc/outgoing_call.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <utility>

#include "ipc/wire.h"
#include "runtime/guard.h"

namespace KITE::Linux {

namespace {

// The errors by which the bus says that the other process, or its object, is not there.
constexpr std::array<std::string_view, 6> kGoneErrors{
    SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_UNKNOWN_OBJECT,
    SD_BUS_ERROR_UNKNOWN_METHOD,  SD_BUS_ERROR_UNKNOWN_INTERFACE, SD_BUS_ERROR_DISCONNECTED};

// Tells what came of a call exactly once: in its destructor where the connection is closed before an answer.
class PendingCall {
  public:
    explicit PendingCall(CallDone done) : done_(std::move(done)) {}
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;
    ~PendingCall() { Finish(ERR_DEAD_OBJECT, nullptr); }

    void Finish(int32_t status, sd_bus_message* reply) noexcept {
        if (const CallDone done = std::exchange(done_, nullptr)) {
            RunGuarded("the receiver of a reply", [&] { done(status, reply); });
        }
    }
    int32_t StatusOfError(const char* name) const {
        if (std::ranges::find(kGoneErrors, name) != kGoneErrors.end()) {
            return ERR_DEAD_OBJECT;
        }
        // The daemon gives no reply when the callee leaves, the library when the time is over or the bus has
        // gone; only the clock tells these apart.
        const bool isLate = std::chrono::steady_clock::now() - begin_ >= kCallTimeout;
        if (name == std::string_view(SD_BUS_ERROR_NO_REPLY)) {
            return isLate ? ERR_TIMED_OUT : ERR_DEAD_OBJECT;
        }
        if (name == std::string_view(SD_BUS_ERROR_TIMEOUT)) {
            return ERR_TIMED_OUT;
        }
        PLATFORM_LOGE("the bus refuses a call: %{public}s", name);
        return ERR_REFUSED;
    }

  private:
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    CallDone done_;
};

int OnReply(sd_bus_message* message, void* pending, sd_bus_error* /*unused*/) {
    auto& call = *static_cast<PendingCall*>(pending);
    const sd_bus_error* error = sd_bus_message_get_error(message);
    call.Finish(error == nullptr ? ERR_NONE : call.StatusOfError(error->name),
                error == nullptr ? message : nullptr);
    return 1;
}

void OnDropped(void* pending) {
    const std::unique_ptr<PendingCall> dropped(static_cast<PendingCall*>(pending));
}

}  // namespace

MessageHandle NewCall(sd_bus* connection, const std::string& destination, const std::string& path,
                      const std::string& interface, const std::string& member) {
    sd_bus_message* message = nullptr;
    if (connection != nullptr) {
        sd_bus_message_new_method_call(connection, &message, destination.c_str(), path.c_str(),
                                       interface.c_str(), member.c_str());
    }
    return MessageHandle(message);
}

MessageHandle NewDaemonCall(sd_bus* connection, const std::string& member, const std::string& name) {
    MessageHandle call = NewCall(connection, kDaemonName, kDaemonPath, kDaemonName, member);
    if (call && sd_bus_message_append(call.get(), "s", name.c_str()) < 0) {
        call.reset();
    }
    return call;
}

std::optional<uint32_t> ReadNumber(int32_t status, sd_bus_message* reply) {
    uint32_t number = 0;
    const bool isTold = status == ERR_NONE && sd_bus_message_read(reply, "u", &number) > 0;
    return isTold ? std::optional(number) : std::nullopt;
}

std::string ReadText(int32_t status, sd_bus_message* reply) {
    const char* text = nullptr;
    const bool isTold = status == ERR_NONE && sd_bus_message_read(reply, "s", &text) > 0;
    return isTold ? text : "";
}

void AskDaemon(sd_bus* connection, const std::string& member, const std::string& name, CallDone done) {
    SendCall(connection, NewDaemonCall(connection, member, name), std::move(done));
}

void SendCall(sd_bus* connection, MessageHandle call, CallDone done) {
    auto pending = std::make_unique<PendingCall>(std::move(done));
    if (connection == nullptr || sd_bus_is_open(connection) <= 0) {
        return;
    }
    if (!call) {
        PLATFORM_LOGE(
            "a call is not sent: a name, a path or an argument is not valid, or this process stops");
        pending->Finish(ERR_REFUSED, nullptr);
        return;
    }
    sd_bus_slot* slot = nullptr;
    constexpr uint64_t kTimeoutMicroseconds = std::chrono::microseconds(kCallTimeout).count();
    if (sd_bus_call_async(connection, &slot, call.get(), &OnReply, pending.get(), kTimeoutMicroseconds) < 0) {
        return;
    }
    // From here on the slot owns the call, and the connection owns the slot, until the answer or its own end.
    const SlotHandle handle(slot);
    sd_bus_slot_set_destroy_callback(slot, &OnDropped);
    static_cast<void>(pending.release());
    sd_bus_slot_set_floating(slot, 1);
}

}  // namespace KITE::Linux
