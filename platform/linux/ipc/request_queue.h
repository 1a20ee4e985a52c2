#pragma once

#include <asio/thread_pool.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ipc/access.h"
#include "ipc/handles.h"
#include "ipc/serving_thread.h"
#include "remote_object.h"

namespace KITE::Linux {

// What has come and is not answered yet.
struct RequestLoad {
    size_t requests = 0;
    size_t bytes = 0;  // of transactions
};

// Another process's call of one of our objects, a transaction or a dump. Belongs to the serving thread.
class Request {
  public:
    // Counts in the load, as long as it lives.
    Request(sd_bus_message* message, RequestLoad& load);
    ~Request();

    // Takes the arguments out of the message. False when it has others, or more than a dump takes.
    bool Read() { return isDump ? ReadDump() : ReadTransaction(); }

    // Answers a transaction; with ERR_TOO_LARGE where the reply is above what the bus carries.
    void AnswerTransaction(int32_t status, const MessageParcel& reply) const;
    void AnswerDump(int32_t status) const;
    // Answers that the object is not there any more.
    void Refuse() const;

    Caller caller;  // the uid is unknown at first
    const bool isDump;
    uint32_t code = 0;                      // of a transaction
    std::span<const std::byte> payload;     // of a transaction; lies in the message
    std::vector<std::u16string> arguments;  // of a dump
    int descriptor = -1;                    // of a dump; the message's

  private:
    bool ReadTransaction();
    bool ReadDump();
    void LogUnsent(const std::error_code& error) const;

    const MessageHandle message_;
    RequestLoad& load_;
};

using RequestPtr = std::shared_ptr<Request>;

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

    ServingThread& serving_;
    asio::thread_pool& dumps_;
    const sptr<IPCObjectStub> object_;
    std::deque<RequestPtr> waiting_;
    RequestPtr dumping_;
    bool isWithdrawn_ = false;
};

}  // namespace KITE::Linux
