#include "ipc/dump_thread.h"

#include <fcntl.h>

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <utility>

#include "base/unique_fd.h"
#include "ipc/serving_thread.h"
#include "runtime/guard.h"

namespace KITE::Linux {

DumpThread::DumpThread(ServingThread& serving) : serving_(serving) {}

DumpThread::~DumpThread() = default;

void DumpThread::Begin() {
    pool_ = std::make_unique<asio::thread_pool>(1);
}

void DumpThread::Start(RequestPtr request, sptr<IPCObjectStub> object, std::function<void()> done) {
    // A descriptor of our own, since the message's may be closed before the dump is written. Where there is
    // none to be had, the object fails to write.
    UniqueFd descriptor(fcntl(request->descriptor, F_DUPFD_CLOEXEC, 0));
    const uint64_t id = ++lastId_;
    const Request& asked = *request;
    running_.emplace(id, Running{std::move(request), std::move(done)});
    asio::post(*pool_, [this, id, descriptor = std::move(descriptor), object = std::move(object),
                        caller = asked.caller, arguments = asked.arguments]() mutable {
        int32_t status = ERR_REFUSED;
        RunGuarded("a dump", [&] {
            const CallingScope scope(caller);
            status = object->Dump(descriptor.Get(), arguments);
        });
        // Closed before the answer goes out, so that the reader sees the end of the text no later.
        descriptor = UniqueFd();
        serving_.Post([this, id, status] { Finish(id, status); });
    });
}

void DumpThread::Finish(uint64_t id, int32_t status) {
    if (const auto finished = running_.extract(id)) {
        finished.mapped().request->AnswerDump(status);
        finished.mapped().done();
    }
}

void DumpThread::Stop() {
    if (pool_) {
        pool_->stop();
        pool_->join();
    }
}

}  // namespace KITE::Linux
