#include "resource_quota_control_proxy.h"

#include <utility>

#include "system_ability.h"

namespace KITE::ResourceQuotaCtl {

sptr<ResourceQuotaControlProxy> ResourceQuotaControlProxy::Find() {
    const sptr<ISystemAbilityManager> registry =
        SystemAbilityManagerClient::GetInstance().GetSystemAbilityManager();
    sptr<IRemoteObject> remote =
        registry ? registry->GetSystemAbility(RESOURCE_QUOTA_CONTROL_SERVICE_ID) : nullptr;
    return remote ? MakeSptr<ResourceQuotaControlProxy>(std::move(remote)) : nullptr;
}

int32_t ResourceQuotaControlProxy::Send(RequestCode code, MessageParcel& request, MessageParcel& reply) {
    MessageOption option;
    return remote_->SendRequest(code, request, reply, option);
}

int32_t ResourceQuotaControlProxy::GetIoWriteBytes(const std::vector<int32_t>& processPids,
                                                   std::vector<uint64_t>& writeBytes) {
    writeBytes.clear();
    if (processPids.empty() || processPids.size() > MAX_IO_PIDS) {
        return ERR_RQC_INVALID_PARAM;
    }
    MessageParcel request;
    MessageParcel reply;
    request.WriteInterfaceToken(GetDescriptor());
    request.WriteInt32Vector(processPids);
    if (const int32_t status = Send(GET_IO_WRITE_BYTES, request, reply); status != ERR_NONE) {
        return status;
    }
    std::vector<uint64_t> bytes;
    if (!reply.ReadUInt64Vector(&bytes)) {
        return ERR_RQC_READ_PARCEL_FAILED;
    }
    // The reply has no place for a result: an empty vector is the refusal.
    if (bytes.empty()) {
        return ERR_RQC_PERMISSION_DENIED;
    }
    if (bytes.size() != processPids.size()) {
        return ERR_RQC_READ_PARCEL_FAILED;
    }
    writeBytes = std::move(bytes);
    return ERR_OK;
}

int32_t ResourceQuotaControlProxy::GetExtensionRunningTime(std::map<std::string, int32_t>& runningTimes) {
    runningTimes.clear();
    MessageParcel request;
    MessageParcel reply;
    request.WriteInterfaceToken(GetDescriptor());
    if (const int32_t status = Send(GET_EXTENSION_RUNNING_TIME, request, reply); status != ERR_NONE) {
        return status;
    }
    int32_t result = ERR_OK;
    uint32_t count = 0;
    if (!reply.ReadInt32(result)) {
        return ERR_RQC_READ_PARCEL_FAILED;
    }
    if (result != ERR_OK) {
        return result;
    }
    if (!reply.ReadUint32(count) || count > MAX_RUNNING_TIMES) {
        return ERR_RQC_READ_PARCEL_FAILED;
    }
    std::map<std::string, int32_t> times;
    for (uint32_t i = 0; i < count; ++i) {
        std::string name;
        int32_t time = 0;
        if (!reply.ReadString(name) || !reply.ReadInt32(time)) {
            return ERR_RQC_READ_PARCEL_FAILED;
        }
        times.emplace(std::move(name), time);
    }
    runningTimes = std::move(times);
    return ERR_OK;
}

}  // namespace KITE::ResourceQuotaCtl
