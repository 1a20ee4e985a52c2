#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "kelvra_manager_client.h"

// What the Kelvra manager and its clients say to each other. A status of 0 is success; the transport's own
// statuses (remote_object.h) and the ones below say what failed. No reply carries content.
namespace KITE::Linux::KelvraProtocol {

// Requests to the manager; each begins with the interface token.
inline constexpr char16_t kManagerDescriptor[] = u"KITE.PowerManager.KelvraManager";
inline constexpr uint32_t kSetProcessQuota = 1;  // int32 reserved, uint32 count, the quota records
inline constexpr uint32_t kSubscribe = 2;        // string: path of the subscriber on the caller's connection

// Requests to a subscriber.
inline constexpr char16_t kSubscriberDescriptor[] = u"KITE.PowerManager.KelvraSubscriber";
inline constexpr char kSubscriberPath[] = "/kite/kelvra/subscriber";
inline constexpr uint32_t kReport = 1;  // uint32 count, the anomaly records

inline constexpr int32_t kBadQuotaList = -1101;
inline constexpr int32_t kBadSubscriberPath = -1102;
inline constexpr int32_t kBadReport = -1103;
inline constexpr int32_t kNotReachable = -1104;  // the client itself: its subscriber cannot be called

// Lists of records in a parcel are a count and the records, and nothing after them.

// Appends the list; false when the parcel is full.
template <typename Records>
bool WriteRecordList(const Records& records, Parcel& parcel) {
    return parcel.WriteUint32(static_cast<uint32_t>(records.size())) &&
           std::ranges::all_of(records, [&](const auto& record) { return record.Marshalling(parcel); });
}

// Takes the list, which must be all that the parcel still holds. The count comes from outside: room is made
// for one record at a time, so that a false count takes no memory.
template <typename Record>
Result<std::vector<Record>> ReadRecordList(Parcel& parcel) {
    uint32_t count = 0;
    if (!parcel.ReadUint32(count)) {
        return Failure("the count is missing");
    }
    std::vector<Record> records;
    for (uint32_t i = 0; i < count; ++i) {
        if (!records.emplace_back().ReadFromParcel(parcel)) {
            return Failure("record " + std::to_string(i) + " of " + std::to_string(count) + " is cut short");
        }
    }
    if (parcel.ReadableBytes() != 0) {
        return Failure(std::to_string(parcel.ReadableBytes()) + " bytes follow the last record");
    }
    return records;
}

}  // namespace KITE::Linux::KelvraProtocol
