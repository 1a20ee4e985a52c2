// Requests and dumps to the service, of a caller that is trusted and of one that is not.

#include "fake_platform.h"
#include "fuzz.h"
#include "iresource_quota_control.h"

using namespace KITE;
using namespace KITE::Fuzz;
using ResourceQuotaCtl::IResourceQuotaControl;

namespace {

constexpr uint32_t kTrusted = 1;

// What a request must be answered with.
void CheckReply(uint32_t code, MessageParcel& request, MessageParcel& reply, bool isTrusted) {
    std::vector<int32_t> pids;
    std::vector<uint64_t> bytes;
    int32_t result = 0;
    uint32_t count = 0;
    if (code == IResourceQuotaControl::GET_IO_WRITE_BYTES) {
        const bool isProper = request.ReadInt32Vector(&pids) && !pids.empty() && pids.size() <= 2048;
        Require(reply.ReadUInt64Vector(&bytes) == isProper);
        Require(bytes.size() == (isTrusted && isProper ? pids.size() : 0));
    } else {
        Require(reply.ReadInt32(result) && reply.ReadUint32(count));
        Require((result == 0) == isTrusted && count == 0);
    }
}

void Call(IRemoteObject& service, Input& input, bool isTrusted) {
    const uint32_t code = input.PickValueInArray({1U, 2U, 3U, ~0U});
    MessageParcel request;
    if (input.ConsumeBool()) {
        request.WriteInterfaceToken(IResourceQuotaControl::GetDescriptor());
    }
    request = TheRest(input, request);
    MessageParcel copy = request;
    MessageParcel reply;
    MessageOption option;
    const int32_t status = service.SendRequest(code, request, reply, option);
    const bool isMeant = copy.ReadInterfaceToken() == IResourceQuotaControl::GetDescriptor();
    Require(status == (!isMeant ? ERR_INVALID_TOKEN : code <= 2 ? ERR_NONE : ERR_UNKNOWN_CODE));
    if (status == ERR_NONE) {
        CheckReply(code, copy, reply, isTrusted);
    }
    Require(reply.ReadableBytes() == 0);
}

void Dump(IRemoteObject& service, Input& input, bool isTrusted) {
    std::vector<std::u16string> args;
    while (input.remaining_bytes() > 0 && args.size() < 4) {
        args.emplace_back();
        for (const char byte : input.ConsumeRandomLengthString(64)) {
            args.back() += byte < 0 ? input.ConsumeIntegral<char16_t>() : static_cast<char16_t>(byte);
        }
    }
    Fake::Platform::Get().saved.clear();
    Require((service.Dump(1, args) == 0) == isTrusted);
    Require(isTrusted || Fake::Platform::Get().saved.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    auto& platform = Fake::Platform::Get();
    const sptr<IRemoteObject> service = dynamic_cast<IRemoteObject*>(platform.registeredAbility);
    platform.Reset();
    platform.nativeProcesses = {{kTrusted, "svcdb"}, {kTrusted + 1, "svcd"}};
    platform.permissions = {{kTrusted, "kite.permission.DUMP"}};
    const bool isTrusted = input.ConsumeBool();
    platform.callingToken = platform.firstToken = isTrusted ? kTrusted : kTrusted + 1;
    const bool isDump = input.ConsumeIntegralInRange(0, 3) == 0;
    (isDump ? Dump : Call)(*service, input, isTrusted);
    return 0;
}
