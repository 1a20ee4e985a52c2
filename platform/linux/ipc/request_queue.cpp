#include "ipc/request_queue.h"

#include <utility>

#include "ipc/dump_thread.h"
#include "runtime/guard.h"

namespace KITE::Linux {

void RequestQueue::Add(RequestPtr request) {
    if (isWithdrawn_) {
        request->Refuse();
        return;
    }
    waiting_.push_back(std::move(request));
    RunWaiting();
}

void RequestQueue::RunWaiting() {
    while (!isDumping_ && !waiting_.empty()) {
        const RequestPtr request = std::move(waiting_.front());
        waiting_.pop_front();
        if (request->isDump) {
            RunDump(request);
        } else {
            RunTransaction(*request);
        }
    }
}

void RequestQueue::RunTransaction(const Request& request) {
    MessageParcel reply;
    int32_t status = ERR_REFUSED;
    RunGuarded("the handler of a request", [&] {
        MessageParcel data(Parcel::InPlace{request.payload});
        MessageOption option;
        const CallingScope scope(request.caller);
        status = object_->OnRemoteRequest(request.code, data, reply, option);
    });
    request.AnswerTransaction(status, reply);
}

void RequestQueue::RunDump(RequestPtr request) {
    isDumping_ = true;
    dumps_.Start(std::move(request), object_, [self = shared_from_this()] {
        self->isDumping_ = false;
        self->RunWaiting();
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
