#include "ipc/remote_proxy.h"

#include <fcntl.h>

#include <memory>
#include <span>
#include <utility>

#include "ipc/bus.h"
#include "ipc/outcome.h"
#include "ipc/wire.h"
#include "runtime/platform_log.h"
#include "string_utils.h"

namespace KITE::Linux {

namespace {

struct Answer {
    int32_t status;
    MessageParcel reply;
};

void FailOnServingThread(int32_t status, RemoteProxy::Done done) {
    auto fail = [status, done = std::move(done)] {
        MessageParcel nothing;
        done(status, nothing);
    };
    if (!Bus::Instance().Post(fail)) {
        fail();
    }
}

Answer ReadAnswer(int32_t status, sd_bus_message* message) {
    if (status != ERR_NONE) {
        return {status, {}};
    }
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read(message, "i", &status) <= 0 ||
        sd_bus_message_read_array(message, 'y', &bytes, &size) < 0) {
        PLATFORM_LOGE("an answer of %{public}s is malformed", sd_bus_message_get_sender(message));
        return {ERR_REFUSED, {}};
    }
    const auto* first = static_cast<const std::byte*>(bytes);
    return {status, MessageParcel(std::span(first, size))};
}

bool AppendArguments(sd_bus_message* message, const std::vector<std::u16string>& args) {
    if (sd_bus_message_open_container(message, 'a', "s") < 0) {
        return false;
    }
    for (const std::u16string& arg : args) {
        if (sd_bus_message_append(message, "s", Str16ToStr8(arg).c_str()) < 0) {
            return false;
        }
    }
    return sd_bus_message_close_container(message) >= 0;
}

bool MayWait(const RemoteProxy& proxy) {
    if (!Bus::Instance().OnServingThread()) {
        return true;
    }
    PLATFORM_LOGE("a call of %{public}s would wait on the serving thread", proxy.Path().c_str());
    return false;
}

}  // namespace

RemoteProxy::RemoteProxy(std::string busName, std::string path)
    : busName_(std::move(busName)), path_(std::move(path)) {}

int32_t RemoteProxy::SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                 MessageOption& option) {
    if (option.GetMode() == MessageOption::Mode::kAsync) {
        SendRequestAsync(code, std::move(data), [](int32_t, MessageParcel&) {});
        return ERR_NONE;
    }
    if (!MayWait(*this)) {
        return ERR_REFUSED;
    }
    const auto outcome = std::make_shared<Outcome<Answer>>();
    SendRequestAsync(code, std::move(data), [outcome](int32_t status, MessageParcel& parcel) {
        outcome->Set({status, std::move(parcel)});
    });
    std::optional<Answer> answer = outcome->WaitFor(kCallTimeout);
    if (!answer) {
        return ERR_TIMED_OUT;
    }
    reply = std::move(answer->reply);
    return answer->status;
}

void RemoteProxy::SendRequestAsync(uint32_t code, MessageParcel data, Done done) {
    if (data.Bytes().size() > kMaxParcelSize) {
        PLATFORM_LOGE("a request of %{public}lu bytes to %{public}s is above what the bus carries",
                      data.Bytes().size(), path_.c_str());
        FailOnServingThread(ERR_TOO_LARGE, std::move(done));
        return;
    }
    const auto request = std::make_shared<const MessageParcel>(std::move(data));
    auto send = [busName = busName_, path = path_, code, request, done] {
        const std::span<const std::byte> bytes = request->Bytes();
        Bus& bus = Bus::Instance();
        MessageHandle call = bus.NewCall(busName, path, kAbilityInterface, "Transact");
        const bool isFilled = call && sd_bus_message_append(call.get(), "u", code) >= 0 &&
                              sd_bus_message_append_array(call.get(), 'y', bytes.data(), bytes.size()) >= 0;
        bus.Call(isFilled ? std::move(call) : nullptr, [done](int32_t status, sd_bus_message* message) {
            Answer answer = ReadAnswer(status, message);
            done(answer.status, answer.reply);
        });
    };
    if (!Bus::Instance().Post(std::move(send))) {
        FailOnServingThread(ERR_DEAD_OBJECT, std::move(done));
    }
}

int32_t RemoteProxy::Dump(int fd, const std::vector<std::u16string>& args) {
    if (!MayWait(*this)) {
        return ERR_REFUSED;
    }
    // A descriptor of our own: the caller may close its one as soon as it stops waiting.
    const auto descriptor = std::make_shared<const UniqueFd>(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    const auto outcome = std::make_shared<Outcome<int32_t>>();
    const bool isPosted = Bus::Instance().Post([busName = busName_, path = path_, descriptor, args, outcome] {
        Bus& bus = Bus::Instance();
        MessageHandle call = bus.NewCall(busName, path, kAbilityInterface, "Dump");
        const bool isFilled = call && AppendArguments(call.get(), args) &&
                              sd_bus_message_append(call.get(), "h", descriptor->Get()) >= 0;
        bus.Call(isFilled ? std::move(call) : nullptr, [outcome](int32_t status, sd_bus_message* message) {
            if (status == ERR_NONE && sd_bus_message_read(message, "i", &status) <= 0) {
                status = ERR_REFUSED;
            }
            outcome->Set(status);
        });
    });
    return isPosted ? outcome->WaitFor(kCallTimeout).value_or(ERR_TIMED_OUT) : ERR_DEAD_OBJECT;
}

}  // namespace KITE::Linux
