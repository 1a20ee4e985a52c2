#include <memory>
#include <mutex>
#include <string>

#include "ipc/bus.h"
#include "kelvra_manager/client/subscriber_stub.h"
#include "kelvra_manager/protocol.h"
#include "kelvra_manager_client.h"
#include "runtime/platform_log.h"
#include "system_ability.h"

namespace KITE::Kelvra {

namespace {

namespace Protocol = Linux::KelvraProtocol;

int32_t CallManager(uint32_t code, MessageParcel& data) {
    const sptr<ISystemAbilityManager> registry =
        SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    const sptr<IRemoteObject> manager =
        registry ? registry->GetSystemAbility(KELVRA_MANAGER_SERVICE_ID) : nullptr;
    if (!manager) {
        PLATFORM_LOGE("a request to the Kelvra manager failed: it does not run");
        return ERR_DEAD_OBJECT;
    }
    MessageParcel reply;
    MessageOption option(MessageOption::Mode::kSync);
    const int32_t status = manager->SendRequest(code, data, reply, option);
    if (status != ERR_NONE) {
        PLATFORM_LOGE("request %{public}u to the Kelvra manager failed: status %{public}d", code, status);
    }
    return status;
}

// The interface takes a const subscriber, and the report call is not const. The cast is sound: a subscriber
// is owned by a shared pointer, so it was not defined as a constant.
std::weak_ptr<KelvraManagerTaskSubscriber> WeakPointerTo(const KelvraManagerTaskSubscriber& subscriber) {
    return std::const_pointer_cast<KelvraManagerTaskSubscriber>(subscriber.weak_from_this().lock());
}

}  // namespace

int32_t KelvraManagerClient::SetProcessQuota(int32_t reserved, std::vector<ResQuotaInfo>& quotas) {
    MessageParcel data;
    if (!data.WriteInterfaceToken(Protocol::kManagerDescriptor) || !data.WriteInt32(reserved) ||
        !Protocol::WriteRecordList(quotas, data)) {
        PLATFORM_LOGE("the quotas are not sent: %{public}lu are too many for one message", quotas.size());
        return ERR_TOO_LARGE;
    }
    return CallManager(Protocol::kSetProcessQuota, data);
}

int32_t KelvraManagerClient::SubscribeKelvraTask(const KelvraManagerTaskSubscriber& subscriber) {
    static std::mutex oneAtATime;                                // held until the manager has answered
    static const auto stub = MakeSptr<Linux::SubscriberStub>();  // of all subscriptions of the process
    const std::weak_ptr<KelvraManagerTaskSubscriber> weak = WeakPointerTo(subscriber);
    const std::lock_guard lock(oneAtATime);
    if (weak.expired() || !Linux::Bus::Instance().Export(Protocol::kSubscriberPath, stub)) {
        PLATFORM_LOGE("no subscription to anomaly reports: the bus does not serve the subscriber");
        return Protocol::kNotReachable;
    }
    stub->SetSubscriber(weak);
    MessageParcel data;
    data.WriteInterfaceToken(Protocol::kManagerDescriptor);
    data.WriteString(Protocol::kSubscriberPath);
    const int32_t status = CallManager(Protocol::kSubscribe, data);
    if (status != ERR_NONE) {
        // The manager may have subscribed it all the same; after a failure no report must come.
        stub->SetSubscriber({});
    }
    return status;
}

}  // namespace KITE::Kelvra
