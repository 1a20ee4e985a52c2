#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "kelvra_manager/access.h"
#include "kelvra_manager_client.h"
#include "remote_object.h"

namespace KITE::Linux {

// The object of the quota service to which the Kelvra manager reports.
class SubscriberStub : public IPCObjectStub {
  public:
    SubscriberStub();

    // Who gets the reports from now on. It is never called once it is destroyed. Any thread.
    void SetSubscriber(std::weak_ptr<Kelvra::KelvraManagerTaskSubscriber> subscriber);

    // Refuses every caller but the process that owns the Kelvra manager's name now. On the serving thread.
    int32_t OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                            MessageOption& option) override;

    // Hands over a batch whose sender has been verified: every reported process is remembered for its
    // treatment first, while its start time can still be checked. The status is 0 when the subscriber took
    // the batch, ERR_DEAD_OBJECT when there is no subscriber any more; a faulty batch is refused whole.
    int32_t TakeBatch(MessageParcel& data);

  private:
    std::mutex mutex_;  // of the subscriber; not held while it is called
    std::weak_ptr<Kelvra::KelvraManagerTaskSubscriber> subscriber_;
    CallerCheck callers_;
};

}  // namespace KITE::Linux
