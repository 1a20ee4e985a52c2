#include "ipc/claimed_names.h"

#include <utility>

#include "ipc/outgoing_call.h"

namespace KITE::Linux {

namespace {

// Flag and answers of the daemon's RequestName.
constexpr uint32_t kDoNotQueue = 4;
constexpr uint32_t kPrimaryOwner = 1;
constexpr uint32_t kAlreadyOwner = 4;

struct Answer {
    int32_t status;
    uint32_t code;
};

Answer ReadAnswer(int32_t status, sd_bus_message* reply) {
    Answer answer{status, 0};
    if (status == ERR_NONE) {
        sd_bus_message_read(reply, "u", &answer.code);
    }
    return answer;
}

}  // namespace

Result<void> ClaimedNames::Claim(const std::string& name) {
    const auto [status, code] = CallAndWait<Answer>(
        thread_, [this, name](sd_bus*) { return NewRequest(name); }, ReadAnswer);
    if (code == kPrimaryOwner || code == kAlreadyOwner) {
        return {};
    }
    return Failure(status == ERR_NONE ? name + " belongs to another process"
                                      : name + " was not given, status " + std::to_string(status));
}

// Remembered before the answer is there, so that a name that is given while the process stops goes back.
MessageHandle ClaimedNames::NewRequest(const std::string& name) {
    MessageHandle call = isClosed_ ? nullptr : NewDaemonCall(thread_.Connection(), "RequestName", name);
    if (call && sd_bus_message_append(call.get(), "u", kDoNotQueue) >= 0) {
        names_.insert(name);
        return call;
    }
    return nullptr;
}

void ClaimedNames::ReleaseAll() {
    isClosed_ = true;
    for (const std::string& name : std::exchange(names_, {})) {
        SendCall(thread_.Connection(), NewDaemonCall(thread_.Connection(), "ReleaseName", name),
                 [](int32_t, sd_bus_message*) {});
    }
}

}  // namespace KITE::Linux
