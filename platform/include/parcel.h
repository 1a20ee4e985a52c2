#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
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
    explicit Parcel(std::span<const std::byte> bytes);
    // Reads bytes where they are, which must live as long as this parcel, but not as long as others that are
    // copied or moved from it.
    struct InPlace {
        std::span<const std::byte> bytes;
    };
    explicit Parcel(InPlace bytes) noexcept
        : begin_(bytes.bytes.data()), capacity_(bytes.bytes.size()), size_(bytes.bytes.size()) {}
    Parcel(const Parcel& other) : Parcel(other.Bytes()) { position_ = other.position_; }
    Parcel(Parcel&& other) noexcept;  // without memory for what is in place the process ends
    Parcel& operator=(Parcel other) noexcept {
        Swap(other);
        return *this;
    }
    ~Parcel() = default;

    bool WriteBool(bool value) { return WriteInt32(value ? 1 : 0); }
    bool WriteInt32(int32_t value) { return WriteAll(value); }
    bool WriteUint32(uint32_t value) { return WriteAll(value); }
    bool WriteInt64(int64_t value) { return WriteAll(value); }
    bool WriteUint64(uint64_t value) { return WriteAll(value); }
    bool WriteString(std::string_view value) { return WriteAll(value); }
    bool WriteString16(std::u16string_view value) { return WriteAll(value); }
    bool WriteInt32Vector(const std::vector<int32_t>& values) { return WriteAll(values); }
    bool WriteUInt32Vector(const std::vector<uint32_t>& values) { return WriteAll(values); }
    bool WriteUInt64Vector(const std::vector<uint64_t>& values) { return WriteAll(values); }
    // Appends all of them, numbers, texts and vectors as above, or nothing. Looks for room once, which counts
    // where a list of records has a million fields.
    template <typename... Fields>
    bool WriteAll(const Fields&... fields);

    bool ReadBool(bool& value);
    bool ReadInt32(int32_t& value);
    bool ReadUint32(uint32_t& value);
    bool ReadInt64(int64_t& value);
    bool ReadUint64(uint64_t& value);
    bool ReadString(std::string& value);
    bool ReadString16(std::u16string& value);
    bool ReadInt32Vector(std::vector<int32_t>* values);
    bool ReadUInt32Vector(std::vector<uint32_t>* values);
    bool ReadUInt64Vector(std::vector<uint64_t>* values);

    std::span<const std::byte> Bytes() const noexcept { return {begin_, size_}; }
    size_t ReadableBytes() const noexcept { return size_ - position_; }

  private:
    static constexpr size_t kAlignment = 4;

    static constexpr size_t PaddingOf(size_t size) { return (kAlignment - size % kAlignment) % kAlignment; }
    static constexpr size_t Padded(size_t size) { return size + PaddingOf(size); }

    // What a field takes, and writing it; the latter returns the place behind it.
    template <typename Field>
    static size_t SizeOf(const Field& field);
    template <typename Field>
    static std::byte* Put(std::byte* place, const Field& field);

    void Swap(Parcel& other) noexcept;
    void Reserve(size_t bytes);
    bool Grow(size_t size);
    bool Take(void* data, size_t size);
    bool TakeCount(size_t elementSize, uint32_t& count);
    template <typename T>
    bool ReadVector(std::vector<T>* values);

    // No vector, which would set each byte before it is written.
    std::unique_ptr<std::byte[]> own_;
    const std::byte* begin_ = nullptr;
    size_t capacity_ = 0;  // above kMaxSize, or of bytes that are not our own, only with no room left
    size_t size_ = 0;
    size_t position_ = 0;
};

template <typename Field>
size_t Parcel::SizeOf(const Field& field) {
    if constexpr (std::is_arithmetic_v<Field>) {
        return Padded(sizeof(field));
    } else {
        return sizeof(uint32_t) + Padded(field.size() * sizeof(*field.data()));
    }
}

template <typename Field>
std::byte* Parcel::Put(std::byte* place, const Field& field) {
    if constexpr (std::is_arithmetic_v<Field>) {
        static_assert(sizeof(field) % kAlignment == 0);
        std::memcpy(place, &field, sizeof(field));
        return place + sizeof(field);
    } else {
        const auto count = static_cast<uint32_t>(field.size());
        const size_t size = field.size() * sizeof(*field.data());
        place = Put(place, count);
        if (size != 0) {
            std::memset(place + Padded(size) - kAlignment, 0, kAlignment);
            std::memcpy(place, field.data(), size);
        }
        return place + Padded(size);
    }
}

template <typename... Fields>
bool Parcel::WriteAll(const Fields&... fields) {
    const size_t size = (SizeOf(fields) + ...);
    if (size > capacity_ - size_ && !Grow(size)) {
        return false;
    }
    std::byte* place = own_.get() + size_;
    ((place = Put(place, fields)), ...);
    size_ += size;
    return true;
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
