#include "parcel.h"

#include <cstring>

namespace KITE {

namespace {

constexpr size_t kAlignment = 4;

constexpr size_t PaddingOf(size_t size) {
    return (kAlignment - size % kAlignment) % kAlignment;
}

}  // namespace

bool Parcel::HasRoomFor(size_t size) const {
    return bytes_.size() <= kMaxSize && size <= kMaxSize - bytes_.size();
}

bool Parcel::Append(const void* data, size_t size) {
    const size_t padded = size + PaddingOf(size);
    if (!HasRoomFor(padded)) {
        return false;
    }
    const size_t at = bytes_.size();
    bytes_.resize(at + padded);
    if (size != 0) {
        std::memcpy(bytes_.data() + at, data, size);
    }
    return true;
}

bool Parcel::AppendCounted(size_t count, const void* data, size_t size) {
    if (size > kMaxSize || !HasRoomFor(sizeof(uint32_t) + size + PaddingOf(size))) {
        return false;
    }
    return WriteUint32(static_cast<uint32_t>(count)) && Append(data, size);
}

bool Parcel::WriteInt32(int32_t value) {
    return Append(&value, sizeof(value));
}

bool Parcel::WriteUint32(uint32_t value) {
    return Append(&value, sizeof(value));
}

bool Parcel::WriteInt64(int64_t value) {
    return Append(&value, sizeof(value));
}

bool Parcel::WriteUint64(uint64_t value) {
    return Append(&value, sizeof(value));
}

bool Parcel::WriteString(std::string_view value) {
    return AppendCounted(value.size(), value.data(), value.size());
}

bool Parcel::WriteString16(std::u16string_view value) {
    return AppendCounted(value.size(), value.data(), value.size() * sizeof(char16_t));
}

bool Parcel::WriteInt32Vector(const std::vector<int32_t>& values) {
    return AppendCounted(values.size(), values.data(), values.size() * sizeof(int32_t));
}

bool Parcel::WriteUInt32Vector(const std::vector<uint32_t>& values) {
    return AppendCounted(values.size(), values.data(), values.size() * sizeof(uint32_t));
}

bool Parcel::WriteUInt64Vector(const std::vector<uint64_t>& values) {
    return AppendCounted(values.size(), values.data(), values.size() * sizeof(uint64_t));
}

bool Parcel::Take(void* data, size_t size) {
    if (size > ReadableBytes() || PaddingOf(size) > ReadableBytes() - size) {
        return false;
    }
    if (size != 0) {
        std::memcpy(data, bytes_.data() + position_, size);
    }
    position_ += size + PaddingOf(size);
    return true;
}

// Reads a count of elements that are known to be there, padding included; else restores the position.
bool Parcel::TakeCount(size_t elementSize, uint32_t& count) {
    const size_t start = position_;
    if (!Take(&count, sizeof(count))) {
        return false;
    }
    const size_t size = count * elementSize;
    if (size > ReadableBytes() || PaddingOf(size) > ReadableBytes() - size) {
        position_ = start;
        return false;
    }
    return true;
}

bool Parcel::ReadInt32(int32_t& value) {
    return Take(&value, sizeof(value));
}

bool Parcel::ReadUint32(uint32_t& value) {
    return Take(&value, sizeof(value));
}

bool Parcel::ReadInt64(int64_t& value) {
    return Take(&value, sizeof(value));
}

bool Parcel::ReadUint64(uint64_t& value) {
    return Take(&value, sizeof(value));
}

bool Parcel::ReadBool(bool& value) {
    int32_t number = 0;
    if (!ReadInt32(number)) {
        return false;
    }
    value = number != 0;
    return true;
}

bool Parcel::ReadString(std::string& value) {
    uint32_t length = 0;
    if (!TakeCount(sizeof(char), length)) {
        return false;
    }
    value.resize(length);
    return Take(value.data(), length);
}

bool Parcel::ReadString16(std::u16string& value) {
    uint32_t length = 0;
    if (!TakeCount(sizeof(char16_t), length)) {
        return false;
    }
    value.resize(length);
    return Take(value.data(), length * sizeof(char16_t));
}

template <typename T>
bool Parcel::ReadVector(std::vector<T>* values) {
    uint32_t count = 0;
    if (values == nullptr || !TakeCount(sizeof(T), count)) {
        return false;
    }
    values->resize(count);
    return Take(values->data(), count * sizeof(T));
}

bool Parcel::ReadInt32Vector(std::vector<int32_t>* values) {
    return ReadVector(values);
}

bool Parcel::ReadUInt32Vector(std::vector<uint32_t>* values) {
    return ReadVector(values);
}

bool Parcel::ReadUInt64Vector(std::vector<uint64_t>* values) {
    return ReadVector(values);
}

std::u16string MessageParcel::ReadInterfaceToken() {
    std::u16string token;
    ReadString16(token);
    return token;
}

}  // namespace KITE
