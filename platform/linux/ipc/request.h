#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "ipc/access.h"
#include "ipc/handles.h"
#include "remote_object.h"

namespace KITE::Linux {

// What has come and is not answered yet.
struct RequestLoad {
    size_t requests = 0;
    size_t bytes = 0;  // of transactions
};

// A call of one of our objects by another process, a transaction or a dump. Belongs to the serving thread, as
// its message does.
class Request {
  public:
    // Counts in the load, as long as it lives.
    Request(sd_bus_message* message, RequestLoad& load);
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
    ~Request();

    // Takes the arguments out of the message. False when it has others, or more than a dump takes.
    bool ReadTransaction();
    bool ReadDump();

    // Answers a transaction; with ERR_TOO_LARGE where the reply is above what the bus carries.
    void AnswerTransaction(int32_t status, const MessageParcel& reply) const;
    void AnswerDump(int32_t status) const;
    // Answers that the object is not there any more.
    void Refuse() const;

    Caller caller;  // the uid is unknown at first
    bool isDump = false;
    uint32_t code = 0;                      // of a transaction
    std::span<const std::byte> payload;     // of a transaction; lies in the message
    std::vector<std::u16string> arguments;  // of a dump
    int descriptor = -1;                    // of a dump; the message's

  private:
    void LogUnsent(const std::error_code& error) const;

    const MessageHandle message_;
    RequestLoad& load_;
};

using RequestPtr = std::shared_ptr<Request>;

}  // namespace KITE::Linux
