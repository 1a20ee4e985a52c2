#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "remote_object.h"

namespace KITE::Linux {

// An object of another process, addressed by bus name and object path. With a unique bus name (":1.7") it
// stands for that very process: it answers ERR_DEAD_OBJECT once that has gone.
//
// Besides what the object returns, a call's status is ERR_DEAD_OBJECT (the process, the object or the bus is
// gone), ERR_TIMED_OUT (no answer within 5 s), ERR_TOO_LARGE (the parcel is above what the bus carries; not
// sent, with an error line) or ERR_REFUSED (by the bus, or called on the serving thread).
class KITE_API RemoteProxy : public IRemoteObject {
  public:
    using Done = std::function<void(int32_t status, MessageParcel& reply)>;

    RemoteProxy(std::string busName, std::string path)
        : busName_(std::move(busName)), path_(std::move(path)) {}

    // The request's parcel is empty afterwards. Any thread but the serving one, which is refused at once.
    int32_t SendRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                        MessageOption& option) override;
    // Waits for the dump. Threads as above.
    int32_t Dump(int fd, const std::vector<std::u16string>& args) override;

    // Sends the request and returns. `done` runs exactly once, on the serving thread
    // (on the calling one when there is none any more). Any thread.
    void SendRequestAsync(uint32_t code, MessageParcel data, Done done);

    const std::string& BusName() const noexcept { return busName_; }
    const std::string& Path() const noexcept { return path_; }

  private:
    const std::string busName_;
    const std::string path_;
};

}  // namespace KITE::Linux
