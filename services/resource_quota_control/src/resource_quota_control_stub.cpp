#include "resource_quota_control_stub.h"

#include "resource_quota_control_log.h"

namespace KITE::ResourceQuotaCtl {

int32_t ResourceQuotaControlStub::OnRemoteRequest(uint32_t code, MessageParcel& data, MessageParcel& reply,
                                                  MessageOption& option) {
    if (data.ReadInterfaceToken() != GetDescriptor()) {
        return ERR_INVALID_TOKEN;
    }
    switch (code) {
        case GET_IO_WRITE_BYTES:
            HandleGetIoWriteBytes(data, reply);
            return ERR_NONE;
        case GET_EXTENSION_RUNNING_TIME:
            HandleGetExtensionRunningTime(data, reply);
            return ERR_NONE;
        default:
            return IPCObjectStub::OnRemoteRequest(code, data, reply, option);
    }
}

int32_t ResourceQuotaControlStub::HandleGetIoWriteBytes(MessageParcel& data, MessageParcel& reply) {
    std::vector<int32_t> processPids;
    if (!data.ReadInt32Vector(&processPids)) {
        RQC_LOGE("Failed to read processPids");
        return ERR_RQC_READ_PARCEL_FAILED;
    }
    if (processPids.empty() || processPids.size() > MAX_IO_PIDS) {
        RQC_LOGE("pid vector size is invalid.");
        return ERR_RQC_INVALID_PARAM;
    }
    std::vector<uint64_t> writeBytes;
    const int32_t result = GetIoWriteBytes(processPids, writeBytes);
    reply.WriteUInt64Vector(writeBytes);
    return result;
}

int32_t ResourceQuotaControlStub::HandleGetExtensionRunningTime(MessageParcel& /*data*/,
                                                                MessageParcel& reply) {
    std::map<std::string, int32_t> runningTimes;
    const int32_t result = GetExtensionRunningTime(runningTimes);
    if (runningTimes.size() > MAX_RUNNING_TIMES) {
        reply.WriteInt32(ERR_RQC_TOO_MANY_ITEMS);
        return ERR_OK;
    }
    reply.WriteInt32(result);
    reply.WriteUint32(static_cast<uint32_t>(runningTimes.size()));
    for (const auto& [name, runningTime] : runningTimes) {
        reply.WriteString(name);
        reply.WriteInt32(runningTime);
    }
    return ERR_OK;
}

}  // namespace KITE::ResourceQuotaCtl
