#include "parcel.h"

#include <cstring>

namespace KITE {

bool Parcel::HasRoomFor(size_t size) const {
    return size <= kMaxSize && bytes_.size() <= kMaxSize - size;
}

bool Parcel::Append(const void* data, size_t size) {
    if (!HasRoomFor(Padded(size))) {
        return false;
    }
    const size_t end = bytes_.size();
    bytes_.resize(end + Padded(size));
    if (size != 0) {
        std::memcpy(bytes_.data() + end, data, size);
    }
    return true;
}

bool Parcel::Take(void* data, size_t size) {
    if (Padded(size) > ReadableBytes()) {
        return false;
    }
    if (size != 0) {
        std::memcpy(data, bytes_.data() + position_, size);
    }
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
