#include "kelvra_manager/manager/manager_stub.h"

#include <systemd/sd-bus.h>

#include <string>
#include <utility>
#include <vector>

#include "ipc/access.h"
#include "ipc/remote_proxy.h"
#include "kelvra_manager/protocol.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

ManagerStub::ManagerStub(std::shared_ptr<Sampler> sampler)
    : IPCObjectStub(KelvraProtocol::kManagerDescriptor, true), sampler_(std::move(sampler)) {}

int32_t ManagerStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                     MessageOption& option) {
    if (!callers_.IsQuotaService(code)) {
        return ERR_REFUSED;
    }
    if (data.ReadInterfaceToken() != GetObjectDescriptor()) {
        PLATFORM_LOGE("request %{public}u is refused: it is for another interface", code);
        return ERR_INVALID_TOKEN;
    }
    switch (code) {
        case KelvraProtocol::kSetProcessQuota:
            return SetProcessQuota(data);
        case KelvraProtocol::kSubscribe:
            return Subscribe(data);
        default:
            return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
}

int32_t ManagerStub::SetProcessQuota(MessageParcel& data) {
    int32_t reserved = 0;
    data.ReadInt32(reserved);
    auto quotas = KelvraProtocol::ReadRecordList<Kelvra::ResQuotaInfo>(data);
    if (!quotas) {
        PLATFORM_LOGE("a list of quotas is refused: %{public}s", quotas.Why().Text().c_str());
        return KelvraProtocol::kBadQuotaList;
    }
    PLATFORM_LOGI("%{public}lu quotas replace all earlier ones", quotas->size());
    sampler_->SetQuotas(*quotas);
    return ERR_NONE;
}

int32_t ManagerStub::Subscribe(MessageParcel& data) {
    std::string path;
    const bool isPath = data.ReadString(path) && sd_bus_object_path_is_valid(path.c_str()) > 0;
    const sptr<RemoteProxy> subscriber = isPath ? CallerObject(path) : nullptr;
    if (!subscriber) {
        PLATFORM_LOGE("a subscription is refused: it names no object path");
        return KelvraProtocol::kBadSubscriberPath;
    }
    sampler_->SetSubscriber([subscriber](const MessageParcel& batch, std::function<void(int32_t)> answered) {
        subscriber->SendRequestAsync(
            KelvraProtocol::kReport, batch,
            [answered = std::move(answered)](int32_t status, MessageParcel& /*reply*/) { answered(status); });
    });
    PLATFORM_LOGI("reports go to %{public}s from now on", CallerName().c_str());
    return ERR_NONE;
}

}  // namespace KITE::Linux::Sampling
