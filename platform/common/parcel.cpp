#include "parcel.h"

#include <algorithm>

namespace KITE {

bool Parcel::HasRoomFor(size_t size) const {
    return size <= kMaxSize && bytes_.size() <= kMaxSize - size;
}

bool Parcel::Append(const void* data, size_t size) {
    if (!HasRoomFor(Padded(size))) {
        return false;
    }
    const auto* bytes = static_cast<const std::byte*>(data);
    bytes_.insert(bytes_.end(), bytes, bytes + size);
    bytes_.resize(bytes_.size() + Padded(size) - size);
    return true;
}

bool Parcel::Take(void* data, size_t size) {
    if (Padded(size) > ReadableBytes()) {
        return false;
    }
    std::copy_n(bytes_.data() + position_, size, static_cast<std::byte*>(data));
    position_ += Padded(size);
    return true;
}

bool Parcel::ReadBool(bool& value) {
    int32_t number = 0;
    if (!ReadInt32(number)) {
        return false;
    }
    value = number != 0;
    return true;
}

std::u16string MessageParcel::ReadInterfaceToken() {
    std::u16string token;
    ReadString16(token);
    return token;
}

}  // namespace KITE
