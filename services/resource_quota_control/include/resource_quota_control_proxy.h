#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "iresource_quota_control.h"
#include "remote_object.h"

namespace KITE::ResourceQuotaCtl {

// The service as its clients see it.
//
//     const sptr<ResourceQuotaControlProxy> service = ResourceQuotaControlProxy::Find();
//     std::vector<uint64_t> bytes;
//     if (service && service->GetIoWriteBytes({pid}, bytes) == ERR_OK && bytes[0] != UNREADABLE_WRITE_BYTES)
//     { ... }
//
// The process needs a connection to the platform's registry of abilities; on Linux a host has one, and any
// other program opens one with BusConnection (platform/linux/ipc/bus_connection.h).
//
// A call waits for the answer. Its result is negative when there was none: the status of the remote call
// (ERR_DEAD_OBJECT: the service has gone, find it anew; see remote_object.h). Else it is the service's own:
// ERR_OK, ERR_RQC_PERMISSION_DENIED for a caller that the service does not trust, or what is said below.
// ERR_RQC_READ_PARCEL_FAILED is an answer that cannot be read. Results are filled with ERR_OK only, and else
// empty. Any thread but one that serves requests.
class ResourceQuotaControlProxy : public IResourceQuotaControl {
  public:
    // The service that is there now; null when there is none.
    static sptr<ResourceQuotaControlProxy> Find();

    explicit ResourceQuotaControlProxy(sptr<IRemoteObject> remote) : remote_(std::move(remote)) {}

    // Replaces writeBytes by one entry for each pid, in order: the bytes that it has caused to be sent to
    // storage, UNREADABLE_WRITE_BYTES where that cannot be read. ERR_RQC_INVALID_PARAM, without a request,
    // for no pids and for more than MAX_IO_PIDS.
    int32_t GetIoWriteBytes(const std::vector<int32_t>& processPids,
                            std::vector<uint64_t>& writeBytes) override;
    // ERR_RQC_TOO_MANY_ITEMS when there are more than MAX_RUNNING_TIMES.
    int32_t GetExtensionRunningTime(std::map<std::string, int32_t>& runningTimes) override;
    // For a dump: AsObject()->Dump(fd, words).
    sptr<IRemoteObject> AsObject() override { return remote_; }

  private:
    int32_t Send(RequestCode code, MessageParcel& request, MessageParcel& reply);

    const sptr<IRemoteObject> remote_;
};

}  // namespace KITE::ResourceQuotaCtl
