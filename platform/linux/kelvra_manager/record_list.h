#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/result.h"
#include "kelvra_manager_client.h"

// Lists of records in a parcel: a count and the records, and nothing after them.
namespace KITE::Linux {

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

}  // namespace KITE::Linux
