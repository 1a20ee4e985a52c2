#include "ipc/object_server.h"

#include <fcntl.h>

#include <cerrno>
#include <deque>
#include <span>
#include <utility>

#include "ipc/access.h"
#include "ipc/bus.h"
#include "ipc/wire.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"
#include "string_utils.h"

namespace KITE::Linux {

namespace {

// A dump's arguments are words that an operator typed.
constexpr size_t kMaxDumpArguments = 64;
constexpr size_t kMaxDumpArgumentBytes = size_t{64} << 10;

// False when there are more arguments than a dump takes.
bool ReadArguments(sd_bus_message* message, std::vector<std::u16string>& arguments) {
    if (sd_bus_message_enter_container(message, 'a', "s") < 0) {
        return false;
    }
    size_t bytes = 0;
    const char* text = nullptr;
    while (sd_bus_message_read(message, "s", &text) > 0) {
        const std::string argument = text;
        bytes += argument.size();
        if (arguments.size() == kMaxDumpArguments || bytes > kMaxDumpArgumentBytes) {
            return false;
        }
        arguments.push_back(Str8ToStr16(argument));
    }
    return sd_bus_message_exit_container(message) >= 0;
}

}  // namespace

struct ObjectServer::Served : std::enable_shared_from_this<Served> {
    Served(ObjectServer& owner, std::string where, sptr<IPCObjectStub> what)
        : server(owner), path(std::move(where)), object(std::move(what)) {}

    ObjectServer& server;
    const std::string path;
    const sptr<IPCObjectStub> object;
    SlotHandle slot;
    std::deque<RequestPtr> waiting;
    bool isDumping = false;
    bool isWithdrawn = false;
};

// Counts for its server from its arrival until it is answered.
struct ObjectServer::Request {
    Request(Served& target, sd_bus_message* from)
        : served(target.shared_from_this()), message(sd_bus_message_ref(from)) {
        const char* sender = sd_bus_message_get_sender(from);
        caller.name = sender == nullptr ? "" : sender;
        ++served->server.requests_;
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    ~Request() {
        --served->server.requests_;
        served->server.requestBytes_ -= payload.size();
    }

    const std::shared_ptr<Served> served;
    const MessageHandle message;
    Caller caller;
    bool isDump = false;
    uint32_t code = 0;                   // of a transaction
    std::span<const std::byte> payload;  // of a transaction; lies in the message
    std::vector<std::u16string> arguments;
    int descriptor = -1;  // of a dump; the message's
};

ObjectServer::ObjectServer(Bus& bus)
    : bus_(bus), identities_(bus, [this](const std::string& sender) { OnSenderGone(sender); }) {}

ObjectServer::~ObjectServer() = default;

const sd_bus_vtable* ObjectServer::Vtable() {
    // Without the unprivileged mark sd-bus asks the daemon for credentials at every call, which doubles the
    // call's cost. Who may do what is for the objects to decide.
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Transact", "uay", "iay", &OnTransact, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Dump", "ash", "i", &OnDump, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    return vtable;
}

bool ObjectServer::Export(const std::string& path, sptr<IPCObjectStub> object) {
    if (!serving_ || !object) {
        return false;
    }
    const auto found = served_.find(path);
    if (found != served_.end() && found->second->object == object) {
        return true;
    }
    Unexport(path);
    const auto served = std::make_shared<Served>(*this, path, std::move(object));
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object_vtable(bus_.Connection(), &slot, path.c_str(), kAbilityInterface, Vtable(),
                                 served.get()) < 0) {
        return false;
    }
    served->slot.reset(slot);
    served_.emplace(path, served);
    return true;
}

void ObjectServer::Unexport(const std::string& path) {
    const auto found = served_.find(path);
    if (found == served_.end()) {
        return;
    }
    const std::shared_ptr<Served> served = found->second;
    served_.erase(found);
    served->isWithdrawn = true;
    served->slot.reset();
    for (const RequestPtr& request : std::exchange(served->waiting, {})) {
        Refuse(request);
    }
}

void ObjectServer::Begin() {
    dumps_.Start();
    serving_ = true;
}

void ObjectServer::Withdraw() {
    serving_ = false;
    while (!served_.empty()) {
        Unexport(std::string(served_.begin()->first));
    }
}

void ObjectServer::Clear() {
    Withdraw();
    identities_.Clear();
    dumping_.clear();
}

// Nothing may be thrown through the library that delivers the message.

int ObjectServer::OnTransact(sd_bus_message* message, void* served, sd_bus_error* error) {
    int result = -ENOMEM;
    RunGuarded("the delivery of a request",
               [&] { result = TakeTransact(*static_cast<Served*>(served), message, error); });
    return result;
}

int ObjectServer::OnDump(sd_bus_message* message, void* served, sd_bus_error* error) {
    int result = -ENOMEM;
    RunGuarded("the delivery of a dump",
               [&] { result = TakeDump(*static_cast<Served*>(served), message, error); });
    return result;
}

int ObjectServer::TakeTransact(Served& target, sd_bus_message* message, sd_bus_error* error) {
    auto request = std::make_shared<Request>(target, message);
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read(message, "u", &request->code) <= 0 ||
        sd_bus_message_read_array(message, 'y', &bytes, &size) < 0) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "A request is a code and its bytes");
    }
    request->payload = {static_cast<const std::byte*>(bytes), size};
    target.server.requestBytes_ += size;
    return target.server.Accept(std::move(request), error);
}

int ObjectServer::TakeDump(Served& target, sd_bus_message* message, sd_bus_error* error) {
    auto request = std::make_shared<Request>(target, message);
    request->isDump = true;
    if (!ReadArguments(message, request->arguments) ||
        sd_bus_message_read(message, "h", &request->descriptor) <= 0) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "A dump takes few words and a descriptor");
    }
    return target.server.Accept(std::move(request), error);
}

int ObjectServer::Accept(RequestPtr request, sd_bus_error* error) {
    if (requests_ > kMaxRequests || requestBytes_ > kMaxRequestBytes) {
        return sd_bus_error_set(error, SD_BUS_ERROR_LIMITS_EXCEEDED, "Too many requests wait");
    }
    const std::string sender = request->caller.name;
    identities_.Resolve(sender, [this, request = std::move(request)](std::optional<uid_t> uid) {
        request->caller.uid = uid;
        if (request->served->isWithdrawn) {
            Refuse(request);
            return;
        }
        request->served->waiting.push_back(request);
        RunWaiting(request->served);
    });
    return 1;
}

// Dumps of clients that came, asked and died would keep the object busy for up to two seconds each. A
// transaction still runs: its effect may be wanted.
void ObjectServer::OnSenderGone(const std::string& sender) {
    for (const auto& [path, served] : served_) {
        std::erase_if(served->waiting, [&sender](const RequestPtr& request) {
            return request->isDump && request->caller.name == sender;
        });
    }
}

void ObjectServer::RunWaiting(const std::shared_ptr<Served>& served) {
    while (!served->isDumping && !served->waiting.empty()) {
        const RequestPtr request = std::move(served->waiting.front());
        served->waiting.pop_front();
        Run(request);
    }
}

void ObjectServer::Run(const RequestPtr& request) {
    if (request->isDump) {
        StartDump(request);
    } else {
        Transact(request);
    }
}

void ObjectServer::Transact(const RequestPtr& request) {
    MessageParcel reply;
    int32_t status = ERR_REFUSED;
    RunGuarded("a request's handler", [&] {
        MessageParcel data(Parcel::InPlace{request->payload});
        MessageOption option;
        const CallingScope scope(request->caller);
        status = request->served->object->OnRemoteRequest(request->code, data, reply, option);
    });
    Reply(request, status, &reply);
}

// The worker gets what it needs by value; the message stays here, since its count of references is not
// atomic.
void ObjectServer::StartDump(const RequestPtr& request) {
    auto descriptor = std::make_shared<UniqueFd>(fcntl(request->descriptor, F_DUPFD_CLOEXEC, 0));
    const uint64_t dumpId = ++dumpCounter_;
    auto dump = [this, dumpId, descriptor, object = request->served->object, caller = request->caller,
                 arguments = request->arguments] {
        int32_t status = ERR_REFUSED;
        RunGuarded("a dump", [&] {
            const CallingScope scope(caller);
            status = object->Dump(descriptor->Get(), arguments);
        });
        *descriptor = UniqueFd();
        bus_.Post([this, dumpId, status] { OnDumped(dumpId, status); });
    };
    if (!*descriptor || !dumps_.Submit(std::move(dump))) {
        PLATFORM_LOGE("a dump for %{public}s cannot be made", request->caller.name.c_str());
        Reply(request, ERR_REFUSED, nullptr);
        return;
    }
    request->served->isDumping = true;
    dumping_.emplace(dumpId, request);
}

void ObjectServer::OnDumped(uint64_t dumpId, int32_t status) {
    const auto found = dumping_.find(dumpId);
    if (found == dumping_.end()) {
        return;
    }
    const RequestPtr request = found->second;
    dumping_.erase(found);
    request->served->isDumping = false;
    Reply(request, status, nullptr);
    RunWaiting(request->served);
}

// A dump's reply has no parcel.
void ObjectServer::Reply(const RequestPtr& request, int32_t status, const MessageParcel* parcel) {
    std::span<const std::byte> bytes;
    if (parcel != nullptr) {
        bytes = parcel->Bytes();
    }
    if (bytes.size() > kMaxParcelSize) {
        PLATFORM_LOGE("a reply of %{public}lu bytes to code %{public}u is above what the bus carries",
                      bytes.size(), request->code);
        status = ERR_TOO_LARGE;
        bytes = {};
    }
    sd_bus_message* raw = nullptr;
    int result = sd_bus_message_new_method_return(request->message.get(), &raw);
    const MessageHandle reply(raw);
    if (result >= 0) {
        result = sd_bus_message_append(raw, "i", status);
    }
    if (result >= 0 && parcel != nullptr) {
        result = sd_bus_message_append_array(raw, 'y', bytes.data(), bytes.size());
    }
    if (result >= 0) {
        result = sd_bus_send(nullptr, raw, nullptr);
    }
    if (result < 0) {
        PLATFORM_LOGW("no reply to %{public}s: error %{public}d", request->caller.name.c_str(), -result);
    }
}

void ObjectServer::Refuse(const RequestPtr& request) {
    sd_bus_reply_method_errorf(request->message.get(), SD_BUS_ERROR_UNKNOWN_OBJECT,
                               "The object has been withdrawn");
}

}  // namespace KITE::Linux
