#include "kelvra_manager/manager/manager_stub.h"

#include <systemd/sd-bus.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "access_token.h"
#include "ipc/calling_context.h"
#include "ipc/remote_proxy.h"
#include "kelvra_manager/protocol.h"
#include "kelvra_manager/record_list.h"
#include "runtime/platform_log.h"

namespace KITE::Linux::Sampling {

namespace {

bool IsCallerTrusted() {
    NativeTokenInfo caller;
    const uint32_t token = IPCSkeleton::GetCallingTokenID();
    return token != 0 && AccessTokenKit::GetNativeTokenInfo(token, caller) == 0 &&
           caller.processName == KelvraProtocol::kTrustedProcess;
}

}  // namespace

ManagerStub::ManagerStub(std::shared_ptr<Sampler> sampler, std::shared_ptr<Reporter> reporter)
    : IPCObjectStub(KelvraProtocol::kManagerDescriptor, true),
      sampler_(std::move(sampler)),
      reporter_(std::move(reporter)) {}

int32_t ManagerStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                     MessageOption& option) {
    if (!IsCallerTrusted()) {
        WarnOfRefusal(code);
        return ERR_REFUSED;
    }
    if (data.ReadInterfaceToken() != GetObjectDescriptor()) {
        PLATFORM_LOGE("request %{public}u is not for this interface", code);
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

void ManagerStub::WarnOfRefusal(uint32_t code) {
    if (const std::optional<unsigned> unwritten = refusals_.MayWrite()) {
        const std::optional<uid_t> uid = CallerUid();
        PLATFORM_LOGE(
            "request %{public}u of %{public}s, uid %{public}ld, is refused: not the quota service; "
            "%{public}u more were since the last such line",
            code, CallerName().c_str(), uid ? long{*uid} : -1L, *unwritten);
    }
}

// To read 80,000 quotas and find the processes' rules in them takes several times as long as their way here,
// and who sent them need not wait for it. Further requests do, so they find the quotas in force.
int32_t ManagerStub::SetProcessQuota(MessageParcel& data) {
    int32_t reserved = 0;
    if (data.ReadInt32(reserved) && IsQuotaList(data.Bytes().last(data.ReadableBytes()))) {
        AnswerNow(ERR_NONE);
    }
    std::vector<Kelvra::ResQuotaInfo> quotas;
    const std::string fault = ReadRecordList(data, quotas);
    if (!fault.empty()) {
        PLATFORM_LOGE("a list of quotas is refused: %{public}s", fault.c_str());
        return KelvraProtocol::kBadQuotaList;
    }
    PLATFORM_LOGI("%{public}lu quotas replace all earlier ones", quotas.size());
    sampler_->SetQuotas(std::move(quotas));
    return ERR_NONE;
}

int32_t ManagerStub::Subscribe(MessageParcel& data) {
    std::string path;
    const bool isPath = data.ReadString(path) && sd_bus_object_path_is_valid(path.c_str()) > 0;
    const sptr<RemoteProxy> subscriber = isPath ? CallerObject(path) : nullptr;
    if (!subscriber) {
        PLATFORM_LOGE("a subscription without a proper path is refused");
        return KelvraProtocol::kBadSubscriberPath;
    }
    reporter_->SetSubscriber([subscriber](const MessageParcel& batch, std::function<void(int32_t)> answered) {
        subscriber->SendRequestAsync(
            KelvraProtocol::kReport, batch,
            [answered = std::move(answered)](int32_t status, MessageParcel& /*reply*/) { answered(status); });
    });
    sampler_->SubscriberHasChanged();
    PLATFORM_LOGI("reports go to %{public}s from now on", CallerName().c_str());
    return ERR_NONE;
}

}  // namespace KITE::Linux::Sampling
