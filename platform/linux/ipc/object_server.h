#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "ipc/caller_uids.h"
#include "ipc/handles.h"
#include "ipc/worker.h"
#include "remote_object.h"

namespace KITE::Linux {

class Bus;

// The objects that this process serves, and the way of a request to one of them.
//
// A request waits until its sender's uid is known, then until its object is free, then runs: a transaction on
// the serving thread, a dump on a worker of its own, since its reader may keep it waiting. An object's
// requests run one at a time, in the order in which they came; a dump that nobody reads any more is dropped.
// Belongs to the serving thread, except where said.
class ObjectServer {
  public:
    // Beyond this many requests, or bytes, that have come and are not answered, a request is refused: a
    // sender may go on sending while a dump keeps its object busy.
    static constexpr size_t kMaxRequests = 256;
    static constexpr size_t kMaxRequestBytes = size_t{64} << 20;

    explicit ObjectServer(Bus& bus);
    ~ObjectServer();

    // See Bus.
    bool Export(const std::string& path, sptr<IPCObjectStub> object);
    void Unexport(const std::string& path);

    // Serves again, after Clear.
    void Begin();
    // Withdraws all objects and serves no new ones.
    void Withdraw();
    // Waits for the dump that is being written. Not on the serving thread; it must still run.
    void StopDumps() { dumps_.Stop(); }
    // Drops what is left. Before the connection is closed.
    void Clear();

  private:
    struct Request;
    struct Served;
    using RequestPtr = std::shared_ptr<Request>;

    static int OnTransact(sd_bus_message* message, void* served, sd_bus_error* error);
    static int OnDump(sd_bus_message* message, void* served, sd_bus_error* error);
    static const sd_bus_vtable* Vtable();

    static int TakeTransact(Served& target, sd_bus_message* message, sd_bus_error* error);
    static int TakeDump(Served& target, sd_bus_message* message, sd_bus_error* error);
    int Accept(RequestPtr request, sd_bus_error* error);
    void OnSenderGone(const std::string& sender);
    void RunWaiting(const std::shared_ptr<Served>& served);
    void Run(const RequestPtr& request);
    void Transact(const RequestPtr& request);
    void StartDump(const RequestPtr& request);
    void OnDumped(uint64_t dumpId, int32_t status);
    void Reply(const RequestPtr& request, int32_t status, const MessageParcel* parcel);
    void Refuse(const RequestPtr& request);

    Bus& bus_;
    CallerIdentities identities_;
    Worker dumps_;
    std::map<std::string, std::shared_ptr<Served>> served_;
    std::map<uint64_t, RequestPtr> dumping_;
    uint64_t dumpCounter_ = 0;
    bool serving_ = false;
    size_t requests_ = 0;
    size_t requestBytes_ = 0;
};

}  // namespace KITE::Linux
