#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "ipc/request.h"

namespace asio {
class thread_pool;
}

namespace KITE::Linux {

class ServingThread;

// The thread on which objects write their dumps, one dump at a time. A dump's reader may keep it waiting, for
// 2 s at most (SaveStringToFd has that limit), which the serving thread must never do. Belongs to the serving
// thread, except where said.
class DumpThread {
  public:
    explicit DumpThread(ServingThread& serving);
    ~DumpThread();

    // Before the serving thread starts.
    void Begin();
    // Has the object write its dump to the request's descriptor, then answers the request and calls `done`,
    // on the serving thread.
    void Start(RequestPtr request, sptr<IPCObjectStub> object, std::function<void()> done);
    // Waits for the dump that is being written and drops the others. Not on the serving thread.
    void Stop();
    // Drops what Stop has dropped. Before the connection is closed.
    void Clear() { running_.clear(); }

  private:
    struct Running {
        RequestPtr request;
        std::function<void()> done;
    };

    void Finish(uint64_t id, int32_t status);

    ServingThread& serving_;
    std::unique_ptr<asio::thread_pool> pool_;  // of one thread
    // The thread gets what it needs by value and tells which dump it has written: the requests stay here,
    // since the reference counts of their messages are not atomic.
    std::map<uint64_t, Running> running_;
    uint64_t lastId_ = 0;
};

}  // namespace KITE::Linux
