#include "ipc/request_queue.h"

#include <fcntl.h>

#include <asio/post.hpp>
#include <utility>

#include "base/unique_fd.h"
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
                self->FinishDump(status);
            }
        });
    });
}

void RequestQueue::FinishDump(int32_t status) {
    std::exchange(dumping_, nullptr)->AnswerDump(status);
    RunWaiting();
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
