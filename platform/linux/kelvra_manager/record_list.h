#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
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

// Room worth making for a list: that of records with texts and conditions of the usual length. To add up the
// actual lengths would read all records once more.
template <typename Record>
size_t UsualListBytes(size_t count) {
    constexpr size_t kUsualTexts = 64;
    return sizeof(uint32_t) + count * (kFixedBytes<Record> + kUsualTexts);
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

// Whether the bytes are such a list of quotas: what ReadRecordList will say, told by the lengths alone in a
// tenth of its time.
inline bool IsQuotaList(std::span<const std::byte> bytes) {
    constexpr size_t kNumbers = 2 * sizeof(int64_t) + 2 * sizeof(int32_t);
    const auto numberAt = [bytes](size_t place) {
        uint32_t number = 0;
        std::memcpy(&number, bytes.data() + place, sizeof(number));
        return number;
    };
    if (bytes.size() < sizeof(uint32_t)) {
        return false;
    }
    size_t at = sizeof(uint32_t);
    const auto passArray = [&at, end = bytes.size(), numberAt](size_t elementSize) {
        const bool isThere = at <= end - sizeof(uint32_t);
        if (isThere) {
            at += sizeof(uint32_t) + (numberAt(at) * elementSize + 3) / 4 * 4;
        }
        return isThere;
    };
    for (uint32_t left = numberAt(0); left != 0; --left) {
        at += kNumbers;
        if (!passArray(1) || !passArray(1) || !passArray(1) || !passArray(sizeof(uint32_t))) {
            return false;
        }
    }
    return at == bytes.size();
}

}  // namespace KITE::Linux
