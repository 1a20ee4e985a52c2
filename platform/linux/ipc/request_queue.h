#pragma once

#include <asio/thread_pool.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "ipc/request.h"
#include "ipc/serving_thread.h"
#include "remote_object.h"

namespace KITE::Linux {

// The requests of one object, which wait here until it is free: they run one at a time, in the order in which
// they came. A transaction runs on the serving thread, to which all this belongs. A dump runs on another one,
// since its reader may keep it waiting, for 2 s at most (SaveStringToFd has that limit).
class RequestQueue : public std::enable_shared_from_this<RequestQueue> {
  public:
    // Dumps run in the pool, which has one thread.
    RequestQueue(ServingThread& serving, asio::thread_pool& dumps, sptr<IPCObjectStub> object)
        : serving_(serving), dumps_(dumps), object_(std::move(object)) {}

    const sptr<IPCObjectStub>& Object() const { return object_; }

    // Runs the request as soon as those before it have run.
    void Add(RequestPtr request);
    // Drops the waiting dumps of a sender that has left.
    void DropDumpsOf(const std::string& sender);
    // Refuses what waits and what still comes. A dump that runs is answered, if the queue lives so long.
    void Withdraw();

  private:
    void RunWaiting();
    void RunTransaction(const Request& request);
    void StartDump(RequestPtr request);
    void FinishDump(int32_t status);

    ServingThread& serving_;
    asio::thread_pool& dumps_;
    const sptr<IPCObjectStub> object_;
    std::deque<RequestPtr> waiting_;
    RequestPtr dumping_;
    bool isWithdrawn_ = false;
};

}  // namespace KITE::Linux
