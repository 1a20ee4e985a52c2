#include "ipc/request_queue.h"

#include <fcntl.h>

#include <asio/post.hpp>

#include "base/unique_fd.h"
#include "ipc/limits.h"
#include "ipc/wire.h"
#include "runtime/guard.h"
#include "runtime/platform_log.h"
#include "string_utils.h"

namespace KITE::Linux {

Request::Request(sd_bus_message* message, RequestLoad& load)
    : isDump(sd_bus_message_is_method_call(message, kAbilityInterface, kDumpMethod) > 0),
      message_(sd_bus_message_ref(message)),
      load_(load) {
    const char* sender = sd_bus_message_get_sender(message);
    caller.name = sender == nullptr ? "" : sender;
    ++load_.requests;
}

Request::~Request() {
    --load_.requests;
    load_.bytes -= payload.size();
}

bool Request::ReadTransaction() {
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read(message_.get(), "u", &code) <= 0 ||
        sd_bus_message_read_array(message_.get(), 'y', &bytes, &size) < 0) {
        return false;
    }
    payload = {static_cast<const std::byte*>(bytes), size};
    load_.bytes += size;
    return true;
}

bool Request::ReadDump() {
    if (sd_bus_message_enter_container(message_.get(), 'a', "s") < 0) {
        return false;
    }
    size_t bytes = 0;
    const char* text = nullptr;
    while (sd_bus_message_read(message_.get(), "s", &text) > 0) {
        const std::string argument = text;
        bytes += argument.size();
        if (arguments.size() == kMaxDumpArguments || bytes > kMaxDumpArgumentBytes) {
            return false;
        }
        arguments.push_back(Str8ToStr16(argument));
    }
    return sd_bus_message_exit_container(message_.get()) >= 0 &&
           sd_bus_message_read(message_.get(), "h", &descriptor) > 0;
}

void Request::AnswerTransaction(int32_t status, const MessageParcel& reply) const {
    std::span<const std::byte> bytes = reply.Bytes();
    if (bytes.size() > kMaxParcelSize) {
        PLATFORM_LOGE("the reply to request %{public}u has %{public}lu bytes, more than the bus carries",
                      code, bytes.size());
        status = ERR_TOO_LARGE;
        bytes = {};
    }
    sd_bus_message* answer = nullptr;
    const std::error_code error =
        InOrder([&] { return sd_bus_message_new_method_return(message_.get(), &answer); },
                [&] { return sd_bus_message_append(answer, "i", status); },
                [&] { return sd_bus_message_append_array(answer, 'y', bytes.data(), bytes.size()); },
                [&] { return sd_bus_send(nullptr, answer, nullptr); });
    const MessageHandle handle(answer);
    LogUnsent(error);
}

void Request::AnswerDump(int32_t status) const {
    LogUnsent(InOrder([&] { return sd_bus_reply_method_return(message_.get(), "i", status); }));
}

void Request::LogUnsent(const std::error_code& error) const {
    if (error) {
        PLATFORM_LOGW("the answer to %{public}s cannot be sent: %{public}s", caller.name.c_str(),
                      error.message().c_str());
    }
}

void Request::Refuse() const {
    sd_bus_reply_method_errorf(message_.get(), SD_BUS_ERROR_UNKNOWN_OBJECT, "The object has been withdrawn");
}

void RequestQueue::Add(RequestPtr request) {
    if (isWithdrawn_) {
        request->Refuse();
        return;
    }
    waiting_.push_back(std::move(request));
    RunWaiting();
}

void RequestQueue::RunWaiting() {
    while (!dumping_ && !waiting_.empty()) {
        const RequestPtr request = std::move(waiting_.front());
        waiting_.pop_front();
        if (request->isDump) {
            StartDump(request);
        } else {
            RunTransaction(*request);
        }
    }
}

void RequestQueue::RunTransaction(const Request& request) {
    MessageParcel reply;
    int32_t status = ERR_REFUSED;
    RunGuarded("the handler of a request", [&] {
        MessageParcel data(request.payload);
        MessageOption option;
        const CallingScope scope(request.caller);
        status = object_->OnRemoteRequest(request.code, data, reply, option);
    });
    request.AnswerTransaction(status, reply);
}

// The other thread gets what it needs by value, and no more than a weak pointer to this queue: it must not be
// the one that drops a message, since the message's reference count is not atomic.
void RequestQueue::StartDump(RequestPtr request) {
    dumping_ = std::move(request);
    asio::post(dumps_, [&serving = serving_, queue = weak_from_this(), object = object_,
                        caller = dumping_->caller, arguments = dumping_->arguments,
                        descriptor = UniqueFd(fcntl(dumping_->descriptor, F_DUPFD_CLOEXEC, 0))]() mutable {
        int32_t status = ERR_REFUSED;
        RunGuarded("a dump", [&] {
            const CallingScope scope(caller);
            status = object->Dump(descriptor.Get(), arguments);
        });
        // Closed before the answer goes out: who has the answer then finds the end of the text.
        descriptor = UniqueFd();
        serving.Post([queue, status] {
            if (const auto self = queue.lock()) {
                std::exchange(self->dumping_, nullptr)->AnswerDump(status);
                self->RunWaiting();
            }
        });
    });
}

// Dumps of clients that came, asked and died would keep the object busy for as long as a dump's reader may
// take. A transaction still runs: its effect may be wanted.
void RequestQueue::DropDumpsOf(const std::string& sender) {
    std::erase_if(waiting_, [&sender](const RequestPtr& request) {
        return request->isDump && request->caller.name == sender;
    });
}

void RequestQueue::Withdraw() {
    isWithdrawn_ = true;
    for (const RequestPtr& request : std::exchange(waiting_, {})) {
        request->Refuse();
    }
}

}  // namespace KITE::Linux
