#include "parcel.h"

#include <algorithm>
#include <cstring>

namespace KITE {

Parcel::Parcel(std::span<const std::byte> bytes)
    : own_(std::make_unique_for_overwrite<std::byte[]>(bytes.size())),
      begin_(own_.get()),
      capacity_(bytes.size()),
      size_(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), own_.get());
}

Parcel::Parcel(Parcel&& other) noexcept {
    if (other.own_ != nullptr || other.size_ == 0) {
        Swap(other);
    } else {
        Parcel copy(std::as_const(other));
        Swap(copy);
    }
}

void Parcel::Swap(Parcel& other) noexcept {
    own_.swap(other.own_);
    std::swap(begin_, other.begin_);
    std::swap(capacity_, other.capacity_);
    std::swap(size_, other.size_);
    std::swap(position_, other.position_);
}

void Parcel::Reserve(size_t bytes) {
    const size_t capacity = std::min(bytes, kMaxSize);
    if (capacity <= capacity_) {
        return;
    }
    auto larger = std::make_unique_for_overwrite<std::byte[]>(capacity);
    std::copy_n(begin_, size_, larger.get());
    own_ = std::move(larger);
    begin_ = own_.get();
    capacity_ = capacity;
}

bool Parcel::Grow(size_t size) {
    if (size > kMaxSize || size_ > kMaxSize - size) {
        return false;
    }
    constexpr size_t kUsual = 256;
    Reserve(std::clamp(2 * capacity_ + kUsual, size_ + size, kMaxSize));
    return true;
}

bool Parcel::Take(void* data, size_t size) {
    if (size > ReadableBytes() || PaddingOf(size) > ReadableBytes() - size) {
        return false;
    }
    if (size != 0) {
        std::memcpy(data, begin_ + position_, size);
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
