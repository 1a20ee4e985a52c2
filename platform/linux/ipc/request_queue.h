#pragma once

#include <deque>
#include <memory>
#include <string>

#include "ipc/request.h"
#include "remote_object.h"

namespace KITE::Linux {

class DumpThread;

// The requests of one object, which wait here until it is free: they run one at a time, in the order in which
// they came. Belongs to the serving thread.
class RequestQueue : public std::enable_shared_from_this<RequestQueue> {
  public:
    RequestQueue(DumpThread& dumps, sptr<IPCObjectStub> object) : dumps_(dumps), object_(std::move(object)) {}

    const sptr<IPCObjectStub>& Object() const { return object_; }

    // Runs the request as soon as those before it have run.
    void Add(RequestPtr request);
    // Drops the waiting dumps of a sender that has left.
    void DropDumpsOf(const std::string& sender);
    // What waits, and what still comes, is refused.
    void Withdraw();

  private:
    void RunWaiting();
    void RunTransaction(const Request& request);
    void RunDump(RequestPtr request);

    DumpThread& dumps_;
    const sptr<IPCObjectStub> object_;
    std::deque<RequestPtr> waiting_;
    bool isDumping_ = false;
    bool isWithdrawn_ = false;
};

}  // namespace KITE::Linux
