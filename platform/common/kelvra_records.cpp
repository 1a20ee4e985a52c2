#include "kelvra_manager_client.h"

namespace KITE::Kelvra {

bool ResQuotaInfo::Marshalling(Parcel& parcel) const {
    return parcel.WriteAll(duration, resource, id, processType, action, processName, resType, conditions);
}

bool ResQuotaInfo::ReadFromParcel(Parcel& parcel) {
    return parcel.ReadInt64(duration) && parcel.ReadInt64(resource) && parcel.ReadInt32(id) &&
           parcel.ReadInt32(processType) && parcel.ReadString(action) && parcel.ReadString(processName) &&
           parcel.ReadString(resType) && parcel.ReadUInt32Vector(&conditions);
}

bool ProcessAnomalyInfo::Marshalling(Parcel& parcel) const {
    return parcel.WriteAll(duration, resource, uid, pid, id, processType, action, resType, processName,
                           conditions, startTime, sampleTime);
}

bool ProcessAnomalyInfo::ReadFromParcel(Parcel& parcel) {
    return parcel.ReadInt64(duration) && parcel.ReadInt64(resource) && parcel.ReadInt32(uid) &&
           parcel.ReadInt32(pid) && parcel.ReadInt32(id) && parcel.ReadInt32(processType) &&
           parcel.ReadString(action) && parcel.ReadString(resType) && parcel.ReadString(processName) &&
           parcel.ReadUInt32Vector(&conditions) && parcel.ReadInt64(startTime) &&
           parcel.ReadInt64(sampleTime);
}

}  // namespace KITE::Kelvra
