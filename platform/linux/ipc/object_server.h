#pragma once

#include <asio/thread_pool.hpp>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ipc/caller_uids.h"
#include "ipc/request_queue.h"

namespace KITE::Linux {

// The objects that this process serves. A request to one of them is counted, waits until its sender's uid is
// known, then in the queue of its object. Belongs to the serving thread, except where said.
class ObjectServer {
  public:
    explicit ObjectServer(ServingThread& thread);

    // Objects can be served. Before the serving thread starts.
    void Begin();

    // See Bus.
    bool Export(const std::string& path, sptr<IPCObjectStub> object);
    void Unexport(const std::string& path);

    // Withdraws all objects and serves no new ones.
    void Withdraw();
    // Waits for the dump that is being written. Not on the serving thread; it must still run.
    void StopDumps();
    // Drops what is left. Before the connection is closed.
    void Clear();

  private:
    struct Served {
        ObjectServer& server;
        std::shared_ptr<RequestQueue> queue;
        SlotHandle slot;
    };

    static int OnCall(sd_bus_message* message, void* served, sd_bus_error* error);
    int Accept(RequestPtr request, const std::shared_ptr<RequestQueue>& queue, sd_bus_error* error);

    ServingThread& thread_;
    CallerUids uids_;
    std::optional<asio::thread_pool> dumps_;  // of one thread
    RequestLoad load_;
    std::map<std::string, Served> served_;
    std::vector<std::shared_ptr<RequestQueue>> withdrawn_;  // kept for the answers to their dumps
    bool isServing_ = false;
};

}  // namespace KITE::Linux
