#include "kelvra_manager_client.h"

namespace KITE::Kelvra {

bool ResQuotaInfo::Marshalling(Parcel& parcel) const {
    return parcel.WriteInt64(duration) && parcel.WriteInt64(resource) && parcel.WriteInt32(id) &&
           parcel.WriteInt32(processType) && parcel.WriteString(action) && parcel.WriteString(processName) &&
           parcel.WriteString(resType) && parcel.WriteUInt32Vector(conditions);
}

bool ResQuotaInfo::ReadFromParcel(Parcel& parcel) {
    return parcel.ReadInt64(duration) && parcel.ReadInt64(resource) && parcel.ReadInt32(id) &&
           parcel.ReadInt32(processType) && parcel.ReadString(action) && parcel.ReadString(processName) &&
           parcel.ReadString(resType) && parcel.ReadUInt32Vector(&conditions);
}

bool ProcessAnomalyInfo::Marshalling(Parcel& parcel) const {
    return parcel.WriteInt64(duration) && parcel.WriteInt64(resource) && parcel.WriteInt32(uid) &&
           parcel.WriteInt32(pid) && parcel.WriteInt32(id) && parcel.WriteInt32(processType) &&
           parcel.WriteString(action) && parcel.WriteString(resType) && parcel.WriteString(processName) &&
           parcel.WriteUInt32Vector(conditions) && parcel.WriteInt64(startTime) &&
           parcel.WriteInt64(sampleTime);
}

bool ProcessAnomalyInfo::ReadFromParcel(Parcel& parcel) {
    return parcel.ReadInt64(duration) && parcel.ReadInt64(resource) && parcel.ReadInt32(uid) &&
           parcel.ReadInt32(pid) && parcel.ReadInt32(id) && parcel.ReadInt32(processType) &&
           parcel.ReadString(action) && parcel.ReadString(resType) && parcel.ReadString(processName) &&
           parcel.ReadUInt32Vector(&conditions) && parcel.ReadInt64(startTime) &&
           parcel.ReadInt64(sampleTime);
}

}  // namespace KITE::Kelvra
