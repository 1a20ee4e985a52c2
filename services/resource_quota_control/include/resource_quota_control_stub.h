#pragma once

#include <cstdint>

#include "iresource_quota_control.h"

namespace KITE::ResourceQuotaCtl {

// Unpacks the requests of the remote interface and packs the replies. Keeps no state; requests come one at a
// time on an IPC thread.
class ResourceQuotaControlStub : public IRemoteStub<IResourceQuotaControl> {
  public:
    ResourceQuotaControlStub() : IRemoteStub(/*serialInvoke=*/true) {}

    // ERR_INVALID_TOKEN for a request to another interface. The operations' results are deliberately not the
    // call's status: a client learns of them from the reply alone.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                            MessageOption& option) override;

  private:
    int32_t HandleGetIoWriteBytes(MessageParcel& data, MessageParcel& reply);
    int32_t HandleGetExtensionRunningTime(MessageParcel& data, MessageParcel& reply);
};

}  // namespace KITE::ResourceQuotaCtl
