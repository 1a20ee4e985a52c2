// Parcels of hostile bytes: each record there and back, and every kind of field in any order.

#include <functional>

#include "fuzz.h"
#include "kelvra_manager_client.h"

using namespace KITE;
using namespace KITE::Fuzz;

namespace {

// A record that can be read at all is the same when it is written and read again.
template <typename Record>
void ThereAndBack(Parcel parcel) {
    Record record;
    Record again;
    Parcel first;
    Parcel second;
    if (record.ReadFromParcel(parcel)) {
        Require(record.Marshalling(first));
        Parcel copy = first;
        Require(again.ReadFromParcel(copy) && copy.ReadableBytes() == 0);
        Require(again.Marshalling(second) && AreEqual(first, second));
    }
}

// A read that fails leaves position and output as they were.
template <typename T, auto Read>
void Take(Parcel& parcel) {
    T value{};
    const size_t left = parcel.ReadableBytes();
    bool isRead = false;
    if constexpr (std::is_invocable_v<decltype(Read), Parcel&, T*>) {
        isRead = std::invoke(Read, parcel, &value);
    } else {
        isRead = std::invoke(Read, parcel, value);
    }
    Require(isRead ? parcel.ReadableBytes() < left : parcel.ReadableBytes() == left && value == T{});
}

constexpr void (*kTakers[])(Parcel&) = {Take<bool, &Parcel::ReadBool>,
                                        Take<int32_t, &Parcel::ReadInt32>,
                                        Take<uint64_t, &Parcel::ReadUint64>,
                                        Take<std::string, &Parcel::ReadString>,
                                        Take<std::u16string, &Parcel::ReadString16>,
                                        Take<std::vector<int32_t>, &Parcel::ReadInt32Vector>,
                                        Take<std::vector<uint32_t>, &Parcel::ReadUInt32Vector>,
                                        Take<std::vector<uint64_t>, &Parcel::ReadUInt64Vector>};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    const auto kinds = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 15));
    MessageParcel parcel = TheRest(input);
    ThereAndBack<Kelvra::ResQuotaInfo>(parcel);
    ThereAndBack<Kelvra::ProcessAnomalyInfo>(parcel);
    for (const uint8_t kind : kinds) {
        kTakers[kind % std::size(kTakers)](parcel);
    }
    return 0;
}
