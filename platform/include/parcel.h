#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "refbase.h"

namespace KITE {

// A flat buffer of typed fields, written at its end and read from its front. A parcel belongs to one thread.
//
// Encoding: integers in the machine's byte order; every field starts at a multiple of four bytes.
//   bool, int32, uint32   4 bytes
//   int64, uint64         8 bytes
//   string                uint32 length in bytes, the bytes, zero padding
//   u16string             uint32 length in code units, the units, zero padding
//   vectors               uint32 count, the elements
//   interface token       a u16string
//
// Every read checks what remains: a field that does not fit, or a length or count beyond the remaining bytes,
// makes the read return false before anything is allocated; position and output stay as they were.
// Every write returns false, and writes nothing, when the parcel would exceed kMaxSize.
class KITE_API Parcel {
  public:
    static constexpr size_t kMaxSize = size_t{128} << 20;

    Parcel() = default;
    // A copy of bytes that came from elsewhere; nothing is checked until it is read.
    explicit Parcel(std::span<const std::byte> bytes) : bytes_(bytes.begin(), bytes.end()) {}

    bool WriteBool(bool value) { return WriteInt32(value ? 1 : 0); }
    bool WriteInt32(int32_t value) { return Append(&value, sizeof(value)); }
    bool WriteUint32(uint32_t value) { return Append(&value, sizeof(value)); }
    bool WriteInt64(int64_t value) { return Append(&value, sizeof(value)); }
    bool WriteUint64(uint64_t value) { return Append(&value, sizeof(value)); }
    bool WriteString(std::string_view value) { return AppendCounted(value); }
    bool WriteString16(std::u16string_view value) { return AppendCounted(value); }
    bool WriteInt32Vector(const std::vector<int32_t>& values) { return AppendCounted(values); }
    bool WriteUInt32Vector(const std::vector<uint32_t>& values) { return AppendCounted(values); }
    bool WriteUInt64Vector(const std::vector<uint64_t>& values) { return AppendCounted(values); }

    bool ReadBool(bool& value);
    bool ReadInt32(int32_t& value) { return Take(&value, sizeof(value)); }
    bool ReadUint32(uint32_t& value) { return Take(&value, sizeof(value)); }
    bool ReadInt64(int64_t& value) { return Take(&value, sizeof(value)); }
    bool ReadUint64(uint64_t& value) { return Take(&value, sizeof(value)); }
    bool ReadString(std::string& value) { return TakeCounted(value); }
    bool ReadString16(std::u16string& value) { return TakeCounted(value); }
    bool ReadInt32Vector(std::vector<int32_t>* values) { return values != nullptr && TakeCounted(*values); }
    bool ReadUInt32Vector(std::vector<uint32_t>* values) { return values != nullptr && TakeCounted(*values); }
    bool ReadUInt64Vector(std::vector<uint64_t>* values) { return values != nullptr && TakeCounted(*values); }

    std::span<const std::byte> Bytes() const noexcept { return bytes_; }
    size_t ReadableBytes() const noexcept { return bytes_.size() - position_; }

  private:
    static constexpr size_t Padded(size_t size) { return (size + 3) / 4 * 4; }
    bool Append(const void* data, size_t size);
    bool Take(void* data, size_t size);
    // A text or a vector, with its count before it.
    template <typename Elements>
    bool AppendCounted(const Elements& elements);
    template <typename Elements>
    bool TakeCounted(Elements& elements);
    bool HasRoomFor(size_t size) const;

    std::vector<std::byte> bytes_;
    size_t position_ = 0;  // of the next read
};

template <typename Elements>
bool Parcel::AppendCounted(const Elements& elements) {
    const size_t size = elements.size() * sizeof(*elements.data());
    return HasRoomFor(sizeof(uint32_t) + Padded(size)) &&
           WriteUint32(static_cast<uint32_t>(elements.size())) && Append(elements.data(), size);
}

template <typename Elements>
bool Parcel::TakeCounted(Elements& elements) {
    const size_t start = position_;
    uint32_t count = 0;
    if (!ReadUint32(count)) {
        return false;
    }
    const size_t size = count * sizeof(*elements.data());
    if (Padded(size) > ReadableBytes()) {
        position_ = start;
        return false;
    }
    elements.resize(count);
    return Take(elements.data(), size);
}

// A parcel as a remote call carries it.
class KITE_API MessageParcel : public Parcel {
  public:
    using Parcel::Parcel;

    bool WriteInterfaceToken(std::u16string_view descriptor) { return WriteString16(descriptor); }
    // The token at the read position, or an empty string if there is none.
    std::u16string ReadInterfaceToken();
};

// How a remote call is made.
class KITE_API MessageOption {
  public:
    enum class Mode { kSync, kAsync };

    explicit MessageOption(Mode mode = Mode::kSync) : mode_(mode) {}
    Mode GetMode() const noexcept { return mode_; }

  private:
    Mode mode_;
};

// A record that can travel in a parcel. Records are plain values: copied, moved and kept in vectors.
class KITE_API Parcelable : public virtual RefBase {
  public:
    // Appends the record; false when the parcel is full.
    virtual bool Marshalling(Parcel& parcel) const = 0;
    // Replaces the record by what the parcel holds next; false, with the record unspecified, when it does not
    // hold one.
    virtual bool ReadFromParcel(Parcel& parcel) = 0;

  protected:
    Parcelable() noexcept = default;
    Parcelable(const Parcelable&) noexcept = default;
    Parcelable& operator=(const Parcelable&) noexcept = default;
};

}  // namespace KITE
