#include "ipc/remote_proxy.h"

#include <fcntl.h>

#include <memory>
#include <span>

#include "base/unique_fd.h"
#include "ipc/bus.h"
#include "ipc/outgoing_call.h"
#include "ipc/wire.h"
#include "runtime/platform_log.h"
#include "string_utils.h"

namespace KITE::Linux {

namespace {

struct Answer {
    int32_t status;
    MessageParcel reply;
};

Answer ReadAnswer(int32_t status, sd_bus_message* message) {
    if (status != ERR_NONE) {
        return {status, {}};
    }
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read(message, "i", &status) <= 0 ||
        sd_bus_message_read_array(message, 'y', &bytes, &size) < 0) {
        PLATFORM_LOGE("the answer of %{public}s is refused: it does not hold a status and bytes",
                      sd_bus_message_get_sender(message));
        return {ERR_REFUSED, {}};
    }
    return {status, MessageParcel(std::span(static_cast<const std::byte*>(bytes), size))};
}

int32_t ReadDumpAnswer(int32_t status, sd_bus_message* message) {
    const bool isAnswer = status != ERR_NONE || sd_bus_message_read(message, "i", &status) > 0;
    return isAnswer ? status : ERR_REFUSED;
}

int AppendArguments(sd_bus_message* message, const std::vector<std::u16string>& args) {
    int result = sd_bus_message_open_container(message, 'a', "s");
    for (const std::u16string& arg : args) {
        result = result < 0 ? result : sd_bus_message_append(message, "s", Str16ToStr8(arg).c_str());
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

bool IsTooLarge(const MessageParcel& request, const std::string& path) {
    const size_t size = request.Bytes().size();
    if (size > kMaxParcelSize) {
        PLATFORM_LOGE(
            "a request to %{public}s is not sent: it has %{public}lu bytes, more than the bus carries",
            path.c_str(), size);
    }
    return size > kMaxParcelSize;
}

ServingThread& Thread() {
    return Bus::Instance().Thread();
}

CallMaker TransactionMaker(const RemoteProxy& callee, uint32_t code, MessageParcel data) {
    const auto request = std::make_shared<const MessageParcel>(std::move(data));
    return [busName = callee.BusName(), path = callee.Path(), code, request](sd_bus* connection) {
        const std::span<const std::byte> bytes = request->Bytes();
        MessageHandle call = NewCall(connection, busName, path, kAbilityInterface, kTransactMethod);
        const bool isFilled = call && sd_bus_message_append(call.get(), "u", code) >= 0 &&
                              sd_bus_message_append_array(call.get(), 'y', bytes.data(), bytes.size()) >= 0;
        return isFilled ? std::move(call) : nullptr;
    };
}

}  // namespace

int32_t RemoteProxy::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                 MessageOption& option) {
    if (option.GetMode() == MessageOption::Mode::kAsync) {
        SendRequestAsync(code, std::move(data), [](int32_t, MessageParcel&) {});
        return ERR_NONE;
    }
    if (IsTooLarge(data, path_)) {
        return ERR_TOO_LARGE;
    }
    Answer answer = CallAndWait<Answer>(Thread(), TransactionMaker(*this, code, std::move(data)), ReadAnswer);
    reply = std::move(answer.reply);
    return answer.status;
}

void RemoteProxy::SendRequestAsync(uint32_t code, MessageParcel data, Done done) {
    const auto receive = [done](int32_t status, sd_bus_message* message) {
        Answer answer = ReadAnswer(status, message);
        done(answer.status, answer.reply);
    };
    CallMaker make = IsTooLarge(data, path_) ? nullptr : TransactionMaker(*this, code, std::move(data));
    const bool isPosted = Thread().Post([make = std::move(make), receive] {
        if (make) {
            SendCall(Thread().Connection(), make(Thread().Connection()), receive);
        } else {
            receive(ERR_TOO_LARGE, nullptr);
        }
    });
    if (!isPosted) {
        receive(ERR_DEAD_OBJECT, nullptr);
    }
}

int32_t RemoteProxy::Dump(int fd, const std::vector<std::u16string>& args) {
    // A descriptor of our own: the caller may close its one as soon as it stops waiting.
    const auto descriptor = std::make_shared<const UniqueFd>(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    const auto make = [busName = busName_, path = path_, descriptor, args](sd_bus* connection) {
        MessageHandle call = NewCall(connection, busName, path, kAbilityInterface, kDumpMethod);
        const bool isFilled = call && AppendArguments(call.get(), args) >= 0 &&
                              sd_bus_message_append(call.get(), "h", descriptor->Get()) >= 0;
        return isFilled ? std::move(call) : nullptr;
    };
    return CallAndWait<int32_t>(Thread(), make, ReadDumpAnswer);
}

}  // namespace KITE::Linux
