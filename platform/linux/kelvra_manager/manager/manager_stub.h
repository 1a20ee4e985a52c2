#pragma once

#include <cstdint>
#include <memory>

#include "kelvra_manager/access.h"
#include "kelvra_manager/manager/sampler.h"
#include "remote_object.h"

namespace KITE::Linux::Sampling {

// The manager's remote object. Its requests come one at a time, on the thread that serves.
class ManagerStub : public IPCObjectStub {
  public:
    explicit ManagerStub(std::shared_ptr<Sampler> sampler);

    // Refuses every caller but the quota service.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                            MessageOption& option) override;

  private:
    int32_t SetProcessQuota(MessageParcel& data);
    int32_t Subscribe(MessageParcel& data);

    const std::shared_ptr<Sampler> sampler_;
    CallerCheck callers_;
};

}  // namespace KITE::Linux::Sampling
