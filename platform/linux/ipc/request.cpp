#include "ipc/request.h"

#include <utility>

#include "ipc/limits.h"
#include "runtime/platform_log.h"
#include "string_utils.h"

namespace KITE::Linux {

Request::Request(sd_bus_message* message, RequestLoad& load)
    : message_(sd_bus_message_ref(message)), load_(load) {
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
    isDump = true;
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

}  // namespace KITE::Linux
