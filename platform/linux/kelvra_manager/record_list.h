#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kelvra_manager_client.h"

// Lists of records in a parcel: a count and the records, and nothing after them.
namespace KITE::Linux {

// Bytes of a marshalled record without its texts and conditions. No record is smaller.
template <typename Record>
inline constexpr size_t kFixedBytes = 0;
template <>
inline constexpr size_t kFixedBytes<Kelvra::ResQuotaInfo> = 2 * 8 + 2 * 4 + 4 * 4;
template <>
inline constexpr size_t kFixedBytes<Kelvra::ProcessAnomalyInfo> = 4 * 8 + 4 * 4 + 4 * 4;

// Bytes that the list takes, rounded up: what is worth reserving.
template <typename Record>
size_t RecordListBytes(const std::vector<Record>& records) {
    constexpr size_t kMostPadding = size_t{3} * 3;
    size_t bytes = sizeof(uint32_t);
    for (const Record& record : records) {
        bytes += kFixedBytes<Record> + kMostPadding + record.action.size() + record.processName.size() +
                 record.resType.size() + record.conditions.size() * sizeof(uint32_t);
    }
    return bytes;
}

// Appends the list; false when the parcel is full.
template <typename Record>
bool WriteRecordList(const std::vector<Record>& records, Parcel& parcel) {
    bool written = parcel.WriteUint32(static_cast<uint32_t>(records.size()));
    for (size_t i = 0; written && i < records.size(); ++i) {
        written = records[i].Marshalling(parcel);
    }
    return written;
}

// Takes the list, which must be all that the parcel still holds. The result is empty on success, else what is
// wrong with it; the records are unspecified then. A count is believed only as far as the bytes could hold
// that many records.
template <typename Record>
std::string ReadRecordList(Parcel& parcel, std::vector<Record>& records) {
    uint32_t count = 0;
    if (!parcel.ReadUint32(count)) {
        return "the count is missing";
    }
    if (count > parcel.ReadableBytes() / kFixedBytes<Record>) {
        return "a count of " + std::to_string(count) + " does not fit into " +
               std::to_string(parcel.ReadableBytes()) + " bytes";
    }
    records.resize(count);
    for (size_t i = 0; i < records.size(); ++i) {
        if (!records[i].ReadFromParcel(parcel)) {
            return "record " + std::to_string(i) + " of " + std::to_string(count) + " is cut short";
        }
    }
    if (parcel.ReadableBytes() != 0) {
        return std::to_string(parcel.ReadableBytes()) + " bytes follow the last record";
    }
    return {};
}

}  // namespace KITE::Linux
